#include "standin/Service.h"

#include "standin/ServiceState.h"
#include "standin/api/Dispatcher.h"
#include "standin/http/HttpServer.h"
#include "standin/store/SampleTree.h"

namespace kzv::standin {

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

}  // namespace kzv::standin
