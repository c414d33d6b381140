#include <ZRVKit/ZRVHTTPClient.h>

#include <ZRVKit/ZRVFormat.h>
#include <ZRVKit/ZRVOperationQueue.h>

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

#include <unistd.h>

// ---------------------------------------------------------------------------------------------------------
// Requests and responses

ZRVHTTPRequest ZRVHTTPRequest::GET(ZRVURL url) {
  ZRVHTTPRequest request;
  request.url = std::move(url);
  return request;
}

ZRVHTTPRequest ZRVHTTPRequest::formPOST(ZRVURL url, std::string_view body) {
  ZRVHTTPRequest request;
  request.url = std::move(url);
  request.method = "POST";
  request.body.assign(body.begin(), body.end());
  request.headers = {{"Content-Length", ZRVFormat("%lu", body.size())},
                     {"Content-Type", "application/x-www-form-urlencoded"}};
  return request;
}

std::optional<std::string> ZRVHTTPResponse::header(std::string_view name) const {
  auto sameName = [&](const std::string& candidate) {
    return std::equal(candidate.begin(), candidate.end(), name.begin(), name.end(), [](char a, char b) {
      return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
    });
  };
  for (const auto& [key, value] : headers) {
    if (sameName(key)) return value;
  }
  return std::nullopt;
}

// ---------------------------------------------------------------------------------------------------------
// One transfer: the same set-up serves the blocking and the concurrent path.

namespace {

struct Transfer {
  ZRVHTTPRequest request;
  std::chrono::milliseconds idleTimeout{};
  ZRVOperationQueue* queue = nullptr;
  ZRVHTTPClient::Completion completion;

  CURL* easy = nullptr;
  curl_slist* headerList = nullptr;
  ZRVData body;
  ZRVHTTPResponse response;
  std::uint64_t bodyLength = 0;
  std::size_t chargedBytes = 0;  ///< what this body counts against kMaxBodyBytesInMemory
  bool bodyTooLarge = false;
  bool overMemoryBudget = false;
  bool outOfMemory = false;
  int writeFailure = 0;
  bool stalled = false;
  curl_off_t lastMoved = -1;
  std::chrono::steady_clock::time_point lastProgress = std::chrono::steady_clock::now();
  char errorBuffer[CURL_ERROR_SIZE] = {};
  // Copied when the transfer is made; null when nobody watches.
  std::shared_ptr<ZRVTransferObserver> observer;
  ZRVTransferState observed;

  ~Transfer();
};

// What the bodies held in memory by all transfers under way take together.
std::atomic<std::size_t> bodyBytesInMemory{0};

Transfer::~Transfer() {
  bodyBytesInMemory.fetch_sub(chargedBytes);
  if (easy) curl_easy_cleanup(easy);
  if (headerList) curl_slist_free_all(headerList);
}

constexpr std::size_t kMaxUpfrontReservation = std::size_t{16} << 20;

// Reserves `capacity` bytes for the body, charging what it adds against the budget of all bodies in memory.
bool reserveBody(Transfer& transfer, std::size_t capacity) {
  if (capacity <= transfer.body.capacity()) return true;
  const std::size_t charged = std::max(transfer.chargedBytes, transfer.body.capacity());
  const std::size_t added = capacity > charged ? capacity - charged : 0;
  if (bodyBytesInMemory.fetch_add(added) + added > ZRVHTTPClient::kMaxBodyBytesInMemory) {
    bodyBytesInMemory.fetch_sub(added);
    transfer.overMemoryBudget = true;
    return false;
  }
  transfer.chargedBytes += added;
  transfer.body.reserve(capacity);
  return true;
}

// A body that goes to a descriptor: written through at once, nothing held.
size_t writeBodyThrough(Transfer& transfer, const char* data, size_t length) {
  for (size_t done = 0; done < length;) {
    ssize_t count = ::write(transfer.request.bodyDescriptor, data + done, length - done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      transfer.writeFailure = count < 0 ? errno : EIO;
      return 0;
    }
    done += static_cast<size_t>(count);
  }
  return length;
}

size_t receiveBody(char* data, size_t size, size_t count, void* context) {
  auto& transfer = *static_cast<Transfer*>(context);
  size_t length = size * count;
  if (transfer.bodyLength + length > transfer.request.maxBodySize) {
    transfer.bodyTooLarge = true;
    return 0;  // makes libcurl fail the transfer
  }
  if (transfer.request.bodyDescriptor >= 0) {
    if (writeBodyThrough(transfer, data, length) != length) return 0;
    transfer.bodyLength += length;
    if (transfer.observer) {
      transfer.observed.received += length;
      transfer.observer->transferProgressed(transfer.observed);
    }
    return length;
  }
  // Nothing may be thrown through libcurl: an answer that memory cannot hold fails like an oversized one.
  // The announced length is believed only up to kMaxUpfrontReservation: a server may claim gigabytes and send
  // a kilobyte. Beyond that the buffer grows by half again, never past the request's limit, so an answer near
  // the limit holds at most the limit plus the buffer it is being moved out of.
  try {
    const std::size_t needed = transfer.body.size() + length;
    if (transfer.body.empty()) {
      curl_off_t expected = -1;
      curl_easy_getinfo(transfer.easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &expected);
      if (expected > 0 && static_cast<std::uint64_t>(expected) <= transfer.request.maxBodySize &&
          !reserveBody(transfer, std::max(needed, std::min(static_cast<size_t>(expected), kMaxUpfrontReservation)))) {
        return 0;
      }
    }
    if (needed > transfer.body.capacity()) {
      std::size_t grown = transfer.body.capacity() + transfer.body.capacity() / 2;
      if (!reserveBody(transfer, std::min(transfer.request.maxBodySize, std::max(needed, grown)))) return 0;
    }
    transfer.body.insert(transfer.body.end(), data, data + length);
    transfer.bodyLength += length;
  } catch (const std::bad_alloc&) {
    transfer.outOfMemory = true;
    return 0;
  }
  if (transfer.observer) {
    transfer.observed.received += length;
    transfer.observer->transferProgressed(transfer.observed);
  }
  return length;
}

void reportAnswerHead(Transfer& transfer);

size_t receiveHeader(char* data, size_t size, size_t count, void* context) {
  auto& transfer = *static_cast<Transfer*>(context);
  size_t length = size * count;
  std::string_view line(data, length);
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
  if (line.rfind("HTTP/", 0) == 0) {
    transfer.response.headers.clear();  // a new answer (after a redirect or an interim answer)
  } else if (line.empty() && transfer.observer) {
    reportAnswerHead(transfer);
  } else if (auto colon = line.find(':'); colon != std::string_view::npos) {
    std::string_view value = line.substr(colon + 1);
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
    transfer.response.headers.emplace_back(std::string(line.substr(0, colon)), std::string(value));
  }
  return length;
}

// The end of an answer head: its status and announced length, for the observer.
void reportAnswerHead(Transfer& transfer) {
  long status = 0;
  curl_easy_getinfo(transfer.easy, CURLINFO_RESPONSE_CODE, &status);
  if (status > 0) transfer.observed.statusCode = status;
  curl_off_t length = -1;
  curl_easy_getinfo(transfer.easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
  transfer.observed.expectedLength =
      length >= 0 ? std::optional<std::uint64_t>(static_cast<std::uint64_t>(length)) : std::nullopt;
  transfer.observer->transferProgressed(transfer.observed);
}

// The platform's request time-out: a request fails when nothing has moved for the idle time, however long
// the whole transfer takes.
int watchProgress(void* context, curl_off_t, curl_off_t downloaded, curl_off_t, curl_off_t uploaded) {
  auto& transfer = *static_cast<Transfer*>(context);
  auto now = std::chrono::steady_clock::now();
  curl_off_t moved = downloaded + uploaded;
  if (moved != transfer.lastMoved) {
    transfer.lastMoved = moved;
    transfer.lastProgress = now;
    return 0;
  }
  if (now - transfer.lastProgress > transfer.idleTimeout) {
    transfer.stalled = true;
    return 1;
  }
  return 0;
}

bool configure(Transfer& transfer) {
  transfer.easy = curl_easy_init();
  if (!transfer.easy) return false;
  CURL* easy = transfer.easy;
  const ZRVHTTPRequest& request = transfer.request;
  curl_easy_setopt(easy, CURLOPT_URL, request.url.absoluteString().c_str());
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, request.followRedirects ? 1L : 0L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 10L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer.errorBuffer);
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(transfer.idleTimeout.count()));
  curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, watchProgress);
  curl_easy_setopt(easy, CURLOPT_XFERINFODATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, receiveBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, receiveHeader);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, &transfer);

  if (request.method == "POST") {
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body.data());
  } else if (request.method != "GET") {
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }

  // Only the headers the request names go out: libcurl's own Accept and Expect are removed.
  transfer.headerList = curl_slist_append(transfer.headerList, "Accept:");
  transfer.headerList = curl_slist_append(transfer.headerList, "Expect:");
  for (const auto& [name, value] : request.headers) {
    transfer.headerList = curl_slist_append(transfer.headerList, (name + ": " + value).c_str());
  }
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer.headerList);
  return true;
}

ZRVHTTPResult finish(Transfer& transfer, CURLcode code) {
  ZRVHTTPResult result;
  if (code == CURLE_OK) {
    long status = 0;
    curl_easy_getinfo(transfer.easy, CURLINFO_RESPONSE_CODE, &status);
    char* effective = nullptr;
    curl_easy_getinfo(transfer.easy, CURLINFO_EFFECTIVE_URL, &effective);
    transfer.response.statusCode = status;
    if (effective) {
      if (auto url = ZRVURL::URLWithString(effective)) transfer.response.url = *url;
    }
    result.response = std::move(transfer.response);
    result.body = std::move(transfer.body);
    result.bodyLength = transfer.bodyLength;
    return result;
  }
  std::string description;
  long reported = code;
  if (transfer.stalled) {
    reported = CURLE_OPERATION_TIMEDOUT;
    description = ZRVFormat("The request timed out: nothing arrived for %ld ms.",
                            static_cast<long>(transfer.idleTimeout.count()));
  } else if (transfer.bodyTooLarge) {
    description = ZRVFormat("The answer is larger than the limit of %lu bytes.", transfer.request.maxBodySize);
  } else if (transfer.overMemoryBudget) {
    description = ZRVFormat("The answers under way already hold the limit of %lu bytes in memory.",
                            ZRVHTTPClient::kMaxBodyBytesInMemory);
  } else if (transfer.writeFailure != 0) {
    description = ZRVFormat("The answer could not be written: %s.", std::strerror(transfer.writeFailure));
  } else if (transfer.outOfMemory) {
    description = "There is not enough memory for the answer.";
  } else {
    description = transfer.errorBuffer[0] ? transfer.errorBuffer : curl_easy_strerror(code);
  }
  result.error = ZRVError(std::string(ZRVError::kHTTPDomain), reported,
                          {{std::string(ZRVError::kLocalizedDescriptionKey), description},
                           {"url", transfer.request.url.absoluteString()}});
  return result;
}

// Tells the observer, if any, how the transfer ended.
void reportEnd(Transfer& transfer, const ZRVHTTPResult& result) {
  if (!transfer.observer) return;
  transfer.observed.succeeded = result.body.has_value();
  if (result.response) transfer.observed.statusCode = result.response->statusCode;
  if (result.error) transfer.observed.failure = result.error->localizedDescription();
  transfer.observer->transferEnded(transfer.observed);
}

ZRVHTTPResult invalidRequest(const ZRVHTTPRequest& request) {
  ZRVHTTPResult result;
  result.error = ZRVError(std::string(ZRVError::kHTTPDomain), CURLE_URL_MALFORMAT,
                          {{std::string(ZRVError::kLocalizedDescriptionKey),
                            ZRVFormat("The request for \"%@\" cannot be made.", request.url.absoluteString())}});
  return result;
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------
// The transfer thread: one multi handle runs every asynchronous request.

struct ZRVHTTPClient::Engine {
  std::mutex mutex;
  CURLM* multi = nullptr;
  std::deque<std::unique_ptr<Transfer>> incoming;
  std::optional<std::chrono::milliseconds> idleLimit;
  std::shared_ptr<ZRVTransferObserver> observer;
  bool started = false;

  void loop() {
    std::vector<std::unique_ptr<Transfer>> active;
    for (;;) {
      {
        std::lock_guard lock(mutex);
        while (!incoming.empty()) {
          auto transfer = std::move(incoming.front());
          incoming.pop_front();
          if (transfer->observer) transfer->observer->transferStarted(transfer->observed);
          curl_multi_add_handle(multi, transfer->easy);
          active.push_back(std::move(transfer));
        }
      }
      int running = 0;
      curl_multi_perform(multi, &running);
      int queued = 0;
      while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
        if (message->msg != CURLMSG_DONE) continue;
        auto found = std::find_if(active.begin(), active.end(),
                                  [&](const auto& transfer) { return transfer->easy == message->easy_handle; });
        if (found == active.end()) continue;
        std::unique_ptr<Transfer> transfer = std::move(*found);
        active.erase(found);
        curl_multi_remove_handle(multi, transfer->easy);
        CURLcode code = message->data.result;
        deliver(std::move(transfer), code);
      }
      curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
  }

  static void deliver(std::unique_ptr<Transfer> transfer, CURLcode code) {
    ZRVHTTPResult result = finish(*transfer, code);
    reportEnd(*transfer, result);
    ZRVOperationQueue* queue = transfer->queue;
    auto completion = std::move(transfer->completion);
    transfer.reset();
    if (!completion) return;
    queue->addOperationWithBlock(
        [completion = std::move(completion), result = std::move(result)]() mutable { completion(std::move(result)); });
  }
};

ZRVHTTPClient& ZRVHTTPClient::sharedClient() {
  static auto* client = new ZRVHTTPClient();  // its transfer thread lives as long as the process
  return *client;
}

ZRVHTTPClient::ZRVHTTPClient() : engine_(std::make_unique<Engine>()) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  engine_->multi = curl_multi_init();
}

ZRVHTTPClient::~ZRVHTTPClient() = default;

void ZRVHTTPClient::setTransferObserver(std::shared_ptr<ZRVTransferObserver> observer) {
  std::lock_guard lock(engine_->mutex);
  engine_->observer = std::move(observer);
}

std::shared_ptr<ZRVTransferObserver> ZRVHTTPClient::transferObserver() const {
  std::lock_guard lock(engine_->mutex);
  return engine_->observer;
}

void ZRVHTTPClient::setIdleTimeoutLimit(std::optional<std::chrono::milliseconds> limit) {
  std::lock_guard lock(engine_->mutex);
  engine_->idleLimit = limit;
}

namespace {

std::unique_ptr<Transfer> makeTransfer(const ZRVHTTPRequest& request, std::optional<std::chrono::milliseconds> limit,
                                       std::shared_ptr<ZRVTransferObserver> observer) {
  auto transfer = std::make_unique<Transfer>();
  transfer->request = request;
  transfer->idleTimeout = limit ? std::min(request.idleTimeout, *limit) : request.idleTimeout;
  if (request.url.empty() || !configure(*transfer)) return nullptr;
  if (observer) {
    static std::atomic<std::uint64_t> nextIdentifier{1};
    transfer->observer = std::move(observer);
    transfer->observed.identifier = nextIdentifier.fetch_add(1);
    transfer->observed.url = request.url.absoluteString();
    transfer->observed.method = request.method;
  }
  return transfer;
}

}  // namespace

void ZRVHTTPClient::sendAsynchronousRequest(ZRVHTTPRequest request, ZRVOperationQueue& queue, Completion completion) {
  std::optional<std::chrono::milliseconds> limit;
  std::shared_ptr<ZRVTransferObserver> observer;
  {
    std::lock_guard lock(engine_->mutex);
    limit = engine_->idleLimit;
    observer = engine_->observer;
  }
  auto transfer = makeTransfer(request, limit, std::move(observer));
  if (!transfer) {
    if (completion) {
      queue.addOperationWithBlock([completion = std::move(completion), result = invalidRequest(request)]() mutable {
        completion(std::move(result));
      });
    }
    return;
  }
  transfer->queue = &queue;
  transfer->completion = std::move(completion);
  {
    std::lock_guard lock(engine_->mutex);
    engine_->incoming.push_back(std::move(transfer));
    if (!engine_->started) {
      engine_->started = true;
      std::thread([engine = engine_.get()] { engine->loop(); }).detach();
    }
  }
  curl_multi_wakeup(engine_->multi);
}

ZRVHTTPResult ZRVHTTPClient::sendSynchronousRequest(const ZRVHTTPRequest& request) {
  std::optional<std::chrono::milliseconds> limit;
  std::shared_ptr<ZRVTransferObserver> observer;
  {
    std::lock_guard lock(engine_->mutex);
    limit = engine_->idleLimit;
    observer = engine_->observer;
  }
  auto transfer = makeTransfer(request, limit, std::move(observer));
  if (!transfer) return invalidRequest(request);
  if (transfer->observer) transfer->observer->transferStarted(transfer->observed);
  ZRVOperationQueue::BlockingScope blocking;
  CURLcode code = curl_easy_perform(transfer->easy);
  ZRVHTTPResult result = finish(*transfer, code);
  reportEnd(*transfer, result);
  return result;
}
