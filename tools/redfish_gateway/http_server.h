/// The HTTP side: one libmicrohttpd daemon for each address, whose threads only move bytes. A complete request goes to
/// a worker while its connection is suspended, so that however many connections wait, none holds up another.
#pragma once

#include <microhttpd.h>

#include <functional>
#include <vector>

#include "tools/redfish_gateway/http_message.h"
#include "tools/redfish_gateway/settings.h"
#include "tools/redfish_gateway/worker_pool.h"

namespace event_service {

class HttpServer {
 public:
  struct Hooks {
    /// Any worker thread.
    std::function<HttpAnswer(FrontEndLink& link, const HttpRequest& request)> serve;
    /// For requests that no worker sees.
    std::function<HttpAnswer(int status)> refuse;
    /// A client of a stream has gone.
    std::function<void()> streamClosed;
  };

  HttpServer(WorkerPool& workers, Hooks hooks);
  ~HttpServer();

  /// Listens on every address. False, after one log line, when one of them cannot be served.
  bool Start(const GatewaySettings& settings);
  /// No new connections from here on.
  void Quiesce();
  /// Ends every connection; no worker holds a request any more.
  void Stop();

 private:
  struct Connection;
  struct Listener;

  bool Listen(const ListenAddress& address, const std::string& certificate, const std::string& key);
  MHD_Result Begin(Connection& connection, const char* version);
  static MHD_Result Receive(Connection& connection, const char* data, size_t* size);
  MHD_Result Queue(Connection& connection);

  static void* OnUri(void* listener, const char* uri, MHD_Connection* handle);
  static MHD_Result OnRequest(void* listener, MHD_Connection* handle, const char* url, const char* method,
                              const char* version, const char* data, size_t* size, void** state);
  static void OnCompleted(void* listener, MHD_Connection* handle, void** state, MHD_RequestTerminationCode code);

  WorkerPool& workers_;
  const Hooks hooks_;
  std::vector<std::unique_ptr<Listener>> listeners_;
};

}  // namespace event_service
