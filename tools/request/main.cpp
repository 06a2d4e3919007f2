/// request METHOD URI [BODY]: sends one request to the daemon as the web front end would and prints the answer.
///
/// BODY is a file of JSON text, "-" for standard input. Exit status: 0 when the request was done, 1 when it was
/// refused, 2 when there was no answer or the arguments make no sense.
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>

#include "foundation/file_paths.h"
#include "resource_store/json_text.h"
#include "tools/front_end/front_end.h"

namespace event_service {
namespace {

constexpr int kDone = 0;
constexpr int kRefused = 1;
constexpr int kNoAnswer = 2;

int Complain(const std::string& text) {
  std::cerr << text << '\n';
  return kNoAnswer;
}

std::string ReadAll(const std::string& file) {
  std::ifstream opened;
  if (file != "-") opened.open(file);
  std::istream& in = file == "-" ? std::cin : opened;
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string Joined(const std::vector<std::string>& texts) {
  std::string joined;
  for (const std::string& text : texts) joined += (joined.empty() ? "" : ", ") + text;
  return joined;
}

void PrintDocument(const Json& document) {
  std::cout << document.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

void PrintAnswer(const FrontEndAnswer& answer) {
  std::cout << (answer.status.empty() ? "(no status)" : answer.status) << '\n';
  if (!answer.location.empty()) std::cout << "Location: " << answer.location << '\n';
  for (const FrontEndMessage& message : answer.messages) {
    std::cout << (message.id.empty() ? "(no message)" : message.id) << '\n';
    if (!message.args.empty()) std::cout << "  arguments: " << Joined(message.args) << '\n';
    if (!message.relatedProperties.empty()) std::cout << "  related: " << Joined(message.relatedProperties) << '\n';
  }
  if (answer.body.empty()) return;
  const Json body = Json::parse(answer.body, nullptr, false);
  if (body.is_discarded()) {
    std::cout << answer.body << '\n';
  } else {
    PrintDocument(body);
  }
}

// Only the members of the collection are prepared by the daemon before they are read.
bool IsMember(const std::string& uri) { return uri.starts_with("/redfish/v1/EventService/Subscriptions/"); }

int Read(redisContext* redis, const std::string& method, const std::string& uri) {
  if (IsMember(uri)) {
    const std::optional<FrontEndAnswer> answer = SendRequest(redis, {.method = method, .targetUri = uri, .body = {}});
    if (!answer) return Complain("The daemon did not answer.");
    if (!answer->status.empty()) {
      PrintAnswer(*answer);
      return kRefused;
    }
  }
  const std::optional<Json> document = ReadForClient(redis, uri);
  if (!document || document->is_discarded()) {
    std::cout << (document ? "What is stored there cannot be read.\n" : "NOT_FOUND\n");
    return kRefused;
  }
  if (method == "GET") PrintDocument(*document);
  return kDone;
}

int Run(const std::string& method, const std::string& uri, const char* bodyFile) {
  static const std::set<std::string> kMethods = {"GET", "HEAD", "POST", "PATCH", "DELETE"};
  if (!kMethods.contains(method)) return Complain("METHOD is one of GET, HEAD, POST, PATCH, DELETE.");
  FrontEndRequest request{.method = RecordMethod(method, uri), .targetUri = uri, .body = {}};
  if (bodyFile != nullptr) {
    request.body = ParseOutsideText(ReadAll(bodyFile));
    if (!request.body->is_object()) return Complain("The body must be a JSON object.");
  }
  const RedisContext redis(redisConnectContext());
  if (!redis) return Complain("There is no Redis to talk to. Is scripts/run running?");
  if (method == "GET" || method == "HEAD") return Read(redis.get(), method, uri);
  const std::optional<FrontEndAnswer> answer = SendRequest(redis.get(), request);
  if (!answer) return Complain("The daemon did not answer.");
  PrintAnswer(*answer);
  return answer->status.starts_with("OK_") ? kDone : kRefused;
}

}  // namespace
}  // namespace event_service

int main(int argumentCount, char** arguments) {
  using namespace event_service;
  if (argumentCount < 3 || argumentCount > 4) return Complain("usage: request METHOD URI [BODY.json]");
  std::signal(SIGPIPE, SIG_IGN);
  if (!SetPathsFromEnvironment()) {
    return Complain("EVENT_SERVICE_ROOT holds characters that a path of the service may not have.");
  }
  return Run(arguments[1], arguments[2], argumentCount == 4 ? arguments[3] : nullptr);
}
