#include "sdk/wire/NetworkThread.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <unordered_map>
#include <utility>

#include <curl/curl.h>
#include <malloc.h>
#include <string.h>

#include "foundation/Fatal.h"
#include "foundation/NSThread.h"

namespace kzv::sdk {

using namespace std::chrono_literals;

namespace {

constexpr long receiveBufferBytes = 256L * 1024;
constexpr long sendBufferBytes = 512L * 1024;
constexpr std::size_t idleHandleLimit = 16;
std::atomic<long> connectTimeoutMs{30'000};
std::atomic<long> silenceTimeoutSeconds{60};
std::atomic<long> smallRequestTimeoutMs{std::chrono::milliseconds(servicelimits::smallRequest).count()};

bool isPlainHttp(std::string_view url) { return url.starts_with("http:"); }

/// The value of a header of the last answer; empty if it is missing.
std::string_view headerValue(CURL* easy, const char* name) {
  curl_header* header = nullptr;
  constexpr int lastAnswer = -1;
  return curl_easy_header(easy, name, 0, CURLH_HEADER, lastAnswer, &header) == CURLHE_OK ? header->value : "";
}

/// RFC 9110, 10.2.3: seconds or a date.
std::optional<std::int64_t> secondsToWait(std::string_view value) {
  std::int64_t seconds = 0;
  const auto [end, failure] = std::from_chars(value.data(), value.data() + value.size(), seconds);
  if (failure == std::errc{} && end == value.data() + value.size()) {
    return std::max<std::int64_t>(seconds, 0);
  }
  const time_t date = value.empty() ? -1 : curl_getdate(std::string(value).c_str(), nullptr);
  if (date < 0) return std::nullopt;
  return std::max<std::int64_t>(static_cast<std::int64_t>(date - ::time(nullptr)), 0);
}

bool beginSink(HttpTransfer& transfer) {
  curl_off_t length = -1;
  curl_easy_getinfo(transfer.easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
  transfer.bodyBegun = true;
  return transfer.request.sink->begin(headerValue(transfer.easy, "Dropbox-API-Result"),
                                      length < 0 ? std::nullopt : std::optional<std::int64_t>(length));
}

std::size_t receiveBody(char* bytes, std::size_t, std::size_t size, void* context) {
  auto& transfer = *static_cast<HttpTransfer*>(context);
  if (transfer.request.sink) {
    long status = 0;
    curl_easy_getinfo(transfer.easy, CURLINFO_RESPONSE_CODE, &status);
    if (status >= 200 && status < 300) {
      if (!transfer.bodyBegun && !beginSink(transfer)) return 0;
      return transfer.request.sink->write({bytes, size}) ? size : 0;
    }
  }
  if (transfer.response.body.size() + size > servicelimits::answerBytes) return 0;
  transfer.response.body.append(bytes, size);
  return size;
}

std::size_t sendBody(char* buffer, std::size_t, std::size_t capacity, void* context) {
  auto& source = *static_cast<HttpTransfer*>(context)->request.source;
  const std::ptrdiff_t count = source.read(buffer, capacity);
  return count < 0 ? CURL_READFUNC_ABORT : static_cast<std::size_t>(count);
}

int rewindBody(void* context, curl_off_t offset, int origin) {
  if (origin != SEEK_SET || offset != 0) return CURL_SEEKFUNC_CANTSEEK;
  return static_cast<HttpTransfer*>(context)->request.source->rewind() ? CURL_SEEKFUNC_OK
                                                                       : CURL_SEEKFUNC_FAIL;
}

int beforeSending(void* context, char*, char*, int, int) {
  auto& transfer = *static_cast<HttpTransfer*>(context);
  ++transfer.response.timesSent;
  // When libcurl repeats a request on another connection, it rewinds the body only if some of it had been
  // written to the first one. Bytes that it had only read would be missing, and both sides would wait for
  // each other until the time-out.
  if (transfer.request.source) transfer.request.source->rewind();
  return CURL_PREREQFUNC_OK;
}

// libcurl's buffers contain tokens: headers to send, sign-in forms and their answers. These are at most a few
// kilobytes, at the beginning of a buffer; clearing all of the transfer buffers would slow down each request.
constexpr std::size_t mostSecretBytes = 16'384;

void freeCleared(void* memory) {
  if (!memory) return;
  ::explicit_bzero(memory, std::min(::malloc_usable_size(memory), mostSecretBytes));
  std::free(memory);
}

void* reallocateCleared(void* memory, std::size_t sizeBytes) {
  void* const moved = std::malloc(sizeBytes);
  if (!moved || !memory) return moved;
  std::memcpy(moved, memory, std::min(sizeBytes, ::malloc_usable_size(memory)));
  freeCleared(memory);
  return moved;
}

void initializeCurlOnce() {
  static const CURLcode initialized = curl_global_init_mem(CURL_GLOBAL_DEFAULT, std::malloc, freeCleared,
                                                           reallocateCleared, ::strdup, std::calloc);
  if (initialized != CURLE_OK) fatalInvariant("libcurl must be initialized");
}

}  // namespace

/// The thread's state. Everything but posted_ and stopped_ is used only on the thread.
class NetworkThread::Loop {
 public:
  Loop();
  ~Loop();
  void run();
  void post(Block block);
  void stop();

  void add(std::shared_ptr<HttpTransfer> transfer);
  void remove(HttpTransfer& transfer);
  TimerId addTimer(Clock::duration wait, Block block);
  void removeTimer(TimerId timer);

 private:
  CURL* takeHandle();
  void recycleHandle(HttpTransfer& transfer);
  CURL* makeHandle() const;
  static void configure(CURL* easy, HttpTransfer& transfer);
  bool runPostedBlocks();
  void fireTimers();
  void finishTransfers();
  void finish(CURL* easy, CURLcode outcome);
  int pollTimeoutMs() const;

  CURLM* const multi_;
  CURLSH* const share_;
  std::vector<CURL*> idleHandles_;
  std::unordered_map<HttpTransfer*, std::shared_ptr<HttpTransfer>> active_;
  std::map<std::pair<Clock::time_point, TimerId>, Block> timers_;
  TimerId lastTimer_ = 0;

  mutable std::mutex mutex_;
  std::vector<Block> posted_;    // guarded by mutex_
  bool stopped_ = false;         // guarded by mutex_
  std::thread::id runningOn_{};  // guarded by mutex_
};

NetworkThread::Loop::Loop() : multi_(curl_multi_init()), share_(curl_share_init()) {
  if (!multi_ || !share_) fatalInvariant("libcurl must have memory for its handles");
  curl_multi_setopt(multi_, CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
  curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, 32L);
  // The multi handle itself shares connections and DNS results, but not TLS sessions.
  curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
}

NetworkThread::Loop::~Loop() {
  while (!active_.empty()) remove(*active_.begin()->second);
  for (CURL* easy : idleHandles_) curl_easy_cleanup(easy);
  curl_multi_cleanup(multi_);
  curl_share_cleanup(share_);
}

void NetworkThread::Loop::post(Block block) {
  bool wake = false;
  {
    const std::lock_guard lock(mutex_);
    // One wake-up is enough until the thread runs the blocks, and its own blocks need none.
    wake = posted_.empty() && runningOn_ != std::this_thread::get_id();
    posted_.push_back(std::move(block));
  }
  if (wake) curl_multi_wakeup(multi_);
}

void NetworkThread::Loop::stop() {
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
  }
  curl_multi_wakeup(multi_);
}

void NetworkThread::Loop::run() {
  setCurrentThreadName("kzv-network");
  {
    const std::lock_guard lock(mutex_);
    runningOn_ = std::this_thread::get_id();
  }
  while (runPostedBlocks()) {
    fireTimers();
    int running = 0;
    curl_multi_perform(multi_, &running);
    finishTransfers();
    curl_multi_poll(multi_, nullptr, 0, pollTimeoutMs(), nullptr);
  }
  timers_.clear();
}

/// False when the thread is to end.
bool NetworkThread::Loop::runPostedBlocks() {
  std::vector<Block> blocks;
  {
    const std::lock_guard lock(mutex_);
    if (stopped_) return false;
    blocks.swap(posted_);
  }
  for (const Block& block : blocks) runGuarded(block);
  return true;
}

void NetworkThread::Loop::fireTimers() {
  while (!timers_.empty() && timers_.begin()->first.first <= Clock::now()) {
    const Block block = std::move(timers_.begin()->second);
    timers_.erase(timers_.begin());
    runGuarded(block);
  }
}

int NetworkThread::Loop::pollTimeoutMs() const {
  constexpr int idleMs = 1'000'000;  // curl shortens it to its own timers
  {
    // Posted by this thread itself, without a wake-up.
    const std::lock_guard lock(mutex_);
    if (!posted_.empty()) return 0;
  }
  if (timers_.empty()) return idleMs;
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(timers_.begin()->first.first - Clock::now());
  return static_cast<int>(std::clamp<std::int64_t>(wait.count(), 0, idleMs));
}

NetworkThread::TimerId NetworkThread::Loop::addTimer(Clock::duration wait, Block block) {
  timers_.emplace(std::pair(Clock::now() + wait, ++lastTimer_), std::move(block));
  return lastTimer_;
}

void NetworkThread::Loop::removeTimer(TimerId timer) {
  std::erase_if(timers_, [&](const auto& entry) { return entry.first.second == timer; });
}

CURL* NetworkThread::Loop::makeHandle() const {
  CURL* easy = curl_easy_init();
  if (!easy) fatalInvariant("libcurl must have memory for its handles");
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_SHARE, share_);
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
  curl_easy_setopt(easy, CURLOPT_TCP_NODELAY, 1L);
  // Detects a dead connection within three minutes even when idle, as during a long poll, and keeps NAT
  // entries alive.
  curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(easy, CURLOPT_TCP_KEEPIDLE, 45L);
  curl_easy_setopt(easy, CURLOPT_TCP_KEEPINTVL, 15L);
  curl_easy_setopt(easy, CURLOPT_USERAGENT, "KZVDropboxFS/0.1");
  curl_easy_setopt(easy, CURLOPT_POST, 1L);
  curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, receiveBufferBytes);
  curl_easy_setopt(easy, CURLOPT_UPLOAD_BUFFERSIZE, sendBufferBytes);
  // A cancelled request must not wait for a name server.
  curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);
  curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, servicelimits::slowestTransferBytesPerSecond);
  // The system's minimum may be lower.
  curl_easy_setopt(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, receiveBody);
  curl_easy_setopt(easy, CURLOPT_READFUNCTION, sendBody);
  curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, rewindBody);
  curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, beforeSending);
  return easy;
}

CURL* NetworkThread::Loop::takeHandle() {
  if (idleHandles_.empty()) return makeHandle();
  CURL* easy = idleHandles_.back();
  idleHandles_.pop_back();
  return easy;
}

void NetworkThread::Loop::recycleHandle(HttpTransfer& transfer) {
  CURL* easy = std::exchange(transfer.easy, nullptr);
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, nullptr);
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, nullptr);
  curl_slist_free_all(static_cast<curl_slist*>(std::exchange(transfer.headerList, nullptr)));
  if (idleHandles_.size() < idleHandleLimit) {
    idleHandles_.push_back(easy);
  } else {
    curl_easy_cleanup(easy);
  }
}

void NetworkThread::Loop::configure(CURL* easy, HttpTransfer& transfer) {
  const HttpRequest& request = transfer.request;
  const bool plain = isPlainHttp(request.url);
  curl_slist* headers = curl_slist_append(nullptr, "Expect:");
  for (const std::string& header : request.headers) headers = curl_slist_append(headers, header.c_str());
  transfer.headerList = headers;
  curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(easy, CURLOPT_PRIVATE, &transfer);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_READDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_SEEKDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_PREREQDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, connectTimeoutMs.load());
  // A request with its own time limit may be silent until then.
  curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, request.timeLimit ? 0L : silenceTimeoutSeconds.load());
  const bool isSmall = !request.source && !request.sink;
  const long limitMs = request.timeLimit
                           ? static_cast<long>(std::chrono::milliseconds(*request.timeLimit).count())
                       : isSmall ? smallRequestTimeoutMs.load()
                                 : 0L;
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, limitMs);
  // Plain HTTP is a server on this machine: no proxy, no compression, nothing to wait for before a second
  // connection is opened.
  curl_easy_setopt(easy, CURLOPT_PROXY, plain ? "" : nullptr);
  curl_easy_setopt(easy, CURLOPT_PIPEWAIT, plain ? 0L : 1L);
  curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, plain || request.sink ? nullptr : "");
  const bool streamed = request.source != nullptr;
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, streamed ? nullptr : request.body.c_str());
  curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                   streamed ? static_cast<curl_off_t>(request.source->sizeBytes())
                            : static_cast<curl_off_t>(request.body.size()));
}

void NetworkThread::Loop::add(std::shared_ptr<HttpTransfer> transfer) {
  HttpTransfer& started = *transfer;
  started.easy = takeHandle();
  configure(started.easy, started);
  active_.emplace(&started, std::move(transfer));
  if (curl_multi_add_handle(multi_, started.easy) != CURLM_OK) {
    fatalInvariant("libcurl must accept a new transfer");
  }
}

void NetworkThread::Loop::remove(HttpTransfer& transfer) {
  const auto found = active_.find(&transfer);
  if (found == active_.end()) return;
  const auto keep = std::move(found->second);
  active_.erase(found);
  curl_multi_remove_handle(multi_, transfer.easy);
  recycleHandle(transfer);
}

void NetworkThread::Loop::finishTransfers() {
  int remaining = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_, &remaining)) {
    if (message->msg == CURLMSG_DONE) finish(message->easy_handle, message->data.result);
  }
}

void NetworkThread::Loop::finish(CURL* easy, CURLcode outcome) {
  HttpTransfer* transfer = nullptr;
  curl_easy_getinfo(easy, CURLINFO_PRIVATE, &transfer);
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &transfer->response.status);
  transfer->response.curlCode = outcome;
  transfer->response.requestId = headerValue(easy, "X-Dropbox-Request-Id");
  transfer->response.retryAfterSeconds = secondsToWait(headerValue(easy, "Retry-After"));
  if (transfer->response.isSuccess() && transfer->request.sink && !transfer->bodyBegun &&
      !beginSink(*transfer)) {
    transfer->response.curlCode = CURLE_WRITE_ERROR;  // also for an empty body
  }
  // A body that was cut off does not count as damaged: the transport's error says more.
  const bool hasEnded = outcome == CURLE_OK || outcome == CURLE_WRITE_ERROR;
  if (hasEnded && transfer->bodyBegun) transfer->response.isDamaged = transfer->request.sink->isDamaged();
  const std::shared_ptr<HttpTransfer> keep = active_.at(transfer);
  remove(*transfer);
  runGuarded([&] { keep->done(keep->response); });
}

std::shared_ptr<NetworkThread> NetworkThread::shared() {
  static std::mutex mutex;
  static std::weak_ptr<NetworkThread> current;
  const std::lock_guard lock(mutex);
  auto thread = current.lock();
  if (!thread) {
    initializeCurlOnce();
    thread = std::shared_ptr<NetworkThread>(new NetworkThread);
    current = thread;
  }
  return thread;
}

NetworkThread::NetworkThread() : loop_(std::make_shared<Loop>()), thread_([loop = loop_] { loop->run(); }) {}

NetworkThread::~NetworkThread() {
  loop_->stop();
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();  // the last reference was released by a block on this thread
  } else {
    thread_.join();
  }
}

void NetworkThread::setTimeouts(std::chrono::milliseconds connect, std::chrono::seconds silence,
                                std::chrono::milliseconds smallRequest) {
  connectTimeoutMs = static_cast<long>(connect.count());
  silenceTimeoutSeconds = static_cast<long>(silence.count());
  smallRequestTimeoutMs = static_cast<long>(smallRequest.count());
}

void NetworkThread::start(std::shared_ptr<HttpTransfer> transfer) {
  loop_->post([loop = loop_.get(), transfer = std::move(transfer)] { loop->add(transfer); });
}

void NetworkThread::cancel(std::shared_ptr<HttpTransfer> transfer) {
  loop_->post([loop = loop_.get(), transfer = std::move(transfer)] { loop->remove(*transfer); });
}

void NetworkThread::perform(Block block) { loop_->post(std::move(block)); }

NetworkThread::TimerId NetworkThread::performAfter(Clock::duration wait, Block block) {
  return loop_->addTimer(wait, std::move(block));
}

void NetworkThread::cancelTimer(TimerId timer) { loop_->removeTimer(timer); }

}  // namespace kzv::sdk
