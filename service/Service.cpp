#include "service/Service.h"

#include "service/Dispatcher.h"
#include "service/HttpServer.h"
#include "service/SampleTree.h"
#include "service/ServiceState.h"

namespace kzv::service {

Service::Service(const ServiceOptions& options) : state_(std::make_unique<ServiceState>(options)) {
  if (options.seedSample) seedSampleAccount(*state_);
  for (const auto& ready : options.accounts) {
    const Account account = state_->accounts.findOrAdd(ready.name, ready.email);
    state_->tokens.addReadyToken(account.id, ready.token);
  }
  dispatcher_ = std::make_unique<Dispatcher>(*state_);
  server_ = std::make_unique<HttpServer>(
      [this](HttpRequest& request, HttpResponse& response) { dispatcher_->handle(request, response); });
}

Service::~Service() { stop(); }

std::optional<int> Service::start(std::string& error) {
  return server_->start(state_->options.host, state_->options.port, error);
}

void Service::stop() {
  state_->store.wakeWaiters();
  dispatcher_->stop();
  server_->stop();
}

}  // namespace kzv::service
