#include "tools/redfish_gateway/http_server.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "foundation/durable_file.h"
#include "foundation/logging.h"
#include "foundation/text_numbers.h"
#include "tools/redfish_gateway/event_streams.h"

namespace event_service {
namespace {

constexpr size_t kLongestBody = size_t{1} << 20;
// What a client may send beyond that before the connection is cut instead of answered.
constexpr size_t kMostSwallowed = 16 * kLongestBody;
constexpr size_t kLongestTarget = 8 * 1024;
constexpr size_t kMostHeaders = 16 * 1024;
// For the headers of a request and those of its answer. What does not fit in here the library refuses by itself, in
// plain words of its own.
constexpr size_t kConnectionMemory = 32 * 1024;
constexpr unsigned kMostConnections = 2000;
constexpr unsigned kIdleSeconds = 30;
constexpr const char* kTlsPriorities = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";

struct ResponseDeleter {
  void operator()(MHD_Response* response) const { MHD_destroy_response(response); }
};
using Response = std::unique_ptr<MHD_Response, ResponseDeleter>;

/// What a response that is a stream keeps alive.
struct StreamBody {
  StreamBody(std::shared_ptr<EventStream> shown, MHD_Connection* handle, std::function<void()> whenClosed)
      : stream(std::move(shown)), connection(handle), closed(std::move(whenClosed)) {}
  std::shared_ptr<EventStream> stream;
  MHD_Connection* connection;
  std::function<void()> closed;
};

ssize_t ReadStream(void* state, uint64_t, char* room, size_t size) {
  StreamBody& body = *static_cast<StreamBody*>(state);
  const ssize_t count = body.stream->Take(room, size, [&] { MHD_suspend_connection(body.connection); });
  return count < 0 ? MHD_CONTENT_READER_END_OF_STREAM : count;
}

void CloseStream(void* state) {
  const std::unique_ptr<StreamBody> body(static_cast<StreamBody*>(state));
  body->stream->Detach();
  body->stream.reset();
  body->closed();
}

MHD_Result KeepHeader(void* state, MHD_ValueKind, const char* name, const char* value) {
  HttpRequest& request = *static_cast<HttpRequest*>(state);
  std::string_view text = value == nullptr ? "" : value;
  text = text.substr(0, text.find_last_not_of(" \t") + 1);  // in front of it the library does so
  const auto [header, isNew] = request.headers.try_emplace(name, text);
  if (!isNew) header->second.append(", ").append(text);
  request.headersSize += header->first.size() + text.size();
  return MHD_YES;
}

/// Why a request is answered before its body has been read, as a status; 0: it is read.
int StatusUnread(const HttpRequest& request, std::string_view version) {
  size_t length = 0;
  const auto given = request.headers.find("Content-Length");
  const bool hasLength = given != request.headers.end();
  const std::string_view host = request.Header("Host");
  if (request.target.size() > kLongestTarget) return 414;
  if (request.headersSize > kMostHeaders) return 431;
  if (version == "HTTP/1.1" && host.empty()) return 400;
  if (host.find(',') != std::string_view::npos) return 400;                         // more than one
  if (hasLength && ParseInteger(given->second, length) != std::errc()) return 400;  // also two that differ
  return length > kMostSwallowed ? 413 : 0;
}

std::string AddressText(const sockaddr* address) {
  char text[INET6_ADDRSTRLEN] = {};
  if (address->sa_family == AF_INET6) {
    const auto* in6 = reinterpret_cast<const sockaddr_in6*>(address);
    inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof text);
    return "[" + std::string(text) + "]:" + std::to_string(ntohs(in6->sin6_port));
  }
  const auto* in = reinterpret_cast<const sockaddr_in*>(address);
  inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
  return std::string(text) + ":" + std::to_string(ntohs(in->sin_port));
}

/// The socket address to listen on; settings have been checked.
sockaddr_storage SocketAddress(const ListenAddress& listen) {
  sockaddr_storage storage = {};
  auto* in = reinterpret_cast<sockaddr_in*>(&storage);
  if (inet_pton(AF_INET, listen.address.c_str(), &in->sin_addr) == 1) {
    in->sin_family = AF_INET;
    in->sin_port = htons(listen.port);
    return storage;
  }
  auto* in6 = reinterpret_cast<sockaddr_in6*>(&storage);
  inet_pton(AF_INET6, listen.address.c_str(), &in6->sin6_addr);
  in6->sin6_family = AF_INET6;
  in6->sin6_port = htons(listen.port);
  return storage;
}

// What is the same for every answer.
constexpr const char* kCommonHeaders[][2] = {
    {"OData-Version", "4.0"}, {"Cache-Control", "no-store"}, {"Server", "redfish-gateway"}};

size_t KeepPercentCodes(void*, MHD_Connection*, char* text) { return std::strlen(text); }

}  // namespace

struct HttpServer::Listener {
  Listener(HttpServer* owner, bool hasTls) : server(owner), isSecure(hasTls) {}
  HttpServer* server;
  bool isSecure;
  std::unique_ptr<MHD_Daemon, void (*)(MHD_Daemon*)> daemon{nullptr, MHD_stop_daemon};
};

struct HttpServer::Connection {
  Connection(HttpServer& owner, MHD_Connection* client) : server(owner), handle(client) {}
  enum class State { kNew, kReceiving, kAnswered };
  HttpServer& server;
  MHD_Connection* handle;
  HttpRequest request = {};
  State state = State::kNew;
  size_t received = 0;
  HttpAnswer answer = {};
};

HttpServer::HttpServer(WorkerPool& workers, Hooks hooks) : workers_(workers), hooks_(std::move(hooks)) {}

HttpServer::~HttpServer() = default;

void* HttpServer::OnUri(void* listener, const char* uri, MHD_Connection* handle) {
  const Listener& owner = *static_cast<Listener*>(listener);
  auto connection = std::make_unique<Connection>(*owner.server, handle);
  connection->request.target = uri;
  connection->request.isSecure = owner.isSecure;
  return connection.release();
}

void HttpServer::OnCompleted(void*, MHD_Connection*, void** state, MHD_RequestTerminationCode) {
  delete static_cast<Connection*>(*state);
  *state = nullptr;
}

// NOLINTNEXTLINE(readability-function-size): the library's form
MHD_Result HttpServer::OnRequest(void*, MHD_Connection* handle, const char*, const char* method, const char* version,
                                 const char* data, size_t* size, void** state) {
  Connection& connection = *static_cast<Connection*>(*state);
  HttpServer& server = connection.server;
  if (connection.state == Connection::State::kAnswered) return server.Queue(connection);
  if (connection.state == Connection::State::kNew || *size > 0) {
    if (connection.state == Connection::State::kReceiving) return Receive(connection, data, size);
    connection.request.method = method;
    return server.Begin(connection, version);
  }
  // Suspended before a worker can resume it.
  MHD_suspend_connection(handle);
  const bool isTaken = server.workers_.Submit([&connection, &server](FrontEndLink& link) {
    connection.answer = server.hooks_.serve(link, connection.request);
    connection.state = Connection::State::kAnswered;
    MHD_resume_connection(connection.handle);
  });
  if (!isTaken) {
    connection.answer = server.hooks_.refuse(503);
    connection.state = Connection::State::kAnswered;
    MHD_resume_connection(handle);
  }
  return MHD_YES;
}

/// The headers are there.
MHD_Result HttpServer::Begin(Connection& connection, const char* version) {
  connection.state = Connection::State::kReceiving;
  MHD_get_connection_values(connection.handle, MHD_HEADER_KIND, KeepHeader, &connection.request);
  const auto* info = MHD_get_connection_info(connection.handle, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  if (info != nullptr) connection.request.clientAddress = AddressText(info->client_addr);
  const int status = StatusUnread(connection.request, version);
  if (status == 0) return MHD_YES;
  connection.answer = hooks_.refuse(status);
  return Queue(connection);
}

/// A piece of the body.
MHD_Result HttpServer::Receive(Connection& connection, const char* data, size_t* size) {
  connection.received += *size;
  if (connection.received > kMostSwallowed) return MHD_NO;
  if (connection.received <= kLongestBody) connection.request.body.append(data, *size);
  *size = 0;
  return MHD_YES;
}

MHD_Result HttpServer::Queue(Connection& connection) {
  HttpAnswer& answer =
      connection.received > kLongestBody ? (connection.answer = hooks_.refuse(413)) : connection.answer;
  Response response;
  if (answer.stream) {
    const auto* info = MHD_get_connection_info(connection.handle, MHD_CONNECTION_INFO_CONNECTION_FD);
    MHD_Connection* const handle = connection.handle;
    answer.stream->Attach(info == nullptr ? -1 : info->connect_fd, [handle] { MHD_resume_connection(handle); });
    // A stream's client may be silent for ever.
    MHD_set_connection_option(handle, MHD_CONNECTION_OPTION_TIMEOUT, 0u);
    auto body = std::make_unique<StreamBody>(std::move(answer.stream), handle, hooks_.streamClosed);
    response.reset(MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, 4096, ReadStream, body.get(), CloseStream));
    if (response) static_cast<void>(body.release());
  } else {
    std::string text = std::move(answer.text);
    if (answer.HasDocument()) text = answer.document.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
    response.reset(MHD_create_response_from_buffer(text.size(), text.data(), MHD_RESPMEM_MUST_COPY));
  }
  if (!response) return MHD_NO;
  for (const auto& [name, value] : kCommonHeaders) MHD_add_response_header(response.get(), name, value);
  if (answer.status != 204 && answer.status != 304) {
    MHD_add_response_header(response.get(), "Content-Type", answer.contentType.c_str());
  }
  for (const auto& [name, value] : answer.headers) MHD_add_response_header(response.get(), name.c_str(), value.c_str());
  return MHD_queue_response(connection.handle, static_cast<unsigned>(answer.status), response.get());
}

bool HttpServer::Listen(const ListenAddress& address, const std::string& certificate, const std::string& key) {
  auto listener = std::make_unique<Listener>(this, address.isSecure);
  const sockaddr_storage socketAddress = SocketAddress(address);
  unsigned flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME;
  if (socketAddress.ss_family == AF_INET6) flags |= MHD_USE_IPv6;
  if (address.isSecure) flags |= MHD_USE_TLS;
  std::vector<MHD_OptionItem> options = {
      {MHD_OPTION_SOCK_ADDR, 0, const_cast<sockaddr_storage*>(&socketAddress)},
      {MHD_OPTION_CONNECTION_LIMIT, kMostConnections, nullptr},
      {MHD_OPTION_CONNECTION_TIMEOUT, kIdleSeconds, nullptr},
      {MHD_OPTION_CONNECTION_MEMORY_LIMIT, static_cast<intptr_t>(kConnectionMemory), nullptr},
      {MHD_OPTION_LISTENING_ADDRESS_REUSE, 1, nullptr},
      {MHD_OPTION_SIGPIPE_HANDLED_BY_APP, 1, nullptr},
      {MHD_OPTION_URI_LOG_CALLBACK, reinterpret_cast<intptr_t>(&OnUri), listener.get()},
      {MHD_OPTION_UNESCAPE_CALLBACK, reinterpret_cast<intptr_t>(&KeepPercentCodes), nullptr},
      {MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(&OnCompleted), listener.get()},
  };
  if (address.isSecure) {
    options.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, const_cast<char*>(certificate.c_str())});
    options.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, const_cast<char*>(key.c_str())});
    options.push_back({MHD_OPTION_HTTPS_PRIORITIES, 0, const_cast<char*>(kTlsPriorities)});
  }
  options.push_back({MHD_OPTION_END, 0, nullptr});
  listener->daemon.reset(MHD_start_daemon(flags, address.port, nullptr, nullptr, &OnRequest, listener.get(),
                                          MHD_OPTION_ARRAY, options.data(), MHD_OPTION_END));
  if (!listener->daemon) return false;
  listeners_.push_back(std::move(listener));
  return true;
}

bool HttpServer::Start(const GatewaySettings& settings) {
  const std::string certificate = ReadWholeFile(settings.certificateFile).value_or("");
  const std::string key = ReadWholeFile(settings.keyFile).value_or("");
  return std::ranges::all_of(settings.listen, [&](const ListenAddress& address) {
    if (Listen(address, certificate, key)) return true;
    LogError("%s, port %u, cannot be served: the port is taken, or the certificate or its key cannot be used.",
             address.address.c_str(), static_cast<unsigned>(address.port));
    return false;
  });
}

void HttpServer::Quiesce() {
  for (const auto& listener : listeners_) close(MHD_quiesce_daemon(listener->daemon.get()));
}

void HttpServer::Stop() { listeners_.clear(); }

}  // namespace event_service
