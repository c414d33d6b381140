// /api/login: the login service with a scripted flow for a few demo accounts.
//
//   player    / quillmoor                signs in at once
//   twofactor / quillmoor, code 123456   asks for a two-factor code first ("partial")
//   queued    / quillmoor                waits in the login queue for three answers ("delayed"), then signs in
//   demo      / quillmoor, code 123456   asks for a two-factor code, then waits in the queue for two answers
//   any other password or account        is refused ("false")
//
// A successful answer carries a play cookie and the game server "127.0.0.1:7000"; a cookie this server
// issued signs the same account in again ("cookie=..."), until the server stops.

#include "serve/Routes.h"

#include <ZRVKit/ZRVJSON.h>

#include <httplib.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <thread>

namespace {

struct DemoAccount {
  const char* password;
  const char* code;   // a two-factor code, or nullptr
  int queueAnswers;   // "delayed" answers before the login goes through
};

const std::map<std::string, DemoAccount>& demoAccounts() {
  static const std::map<std::string, DemoAccount> accounts = {
      {"player", {"quillmoor", nullptr, 0}},
      {"twofactor", {"quillmoor", "123456", 0}},
      {"queued", {"quillmoor", nullptr, 3}},
      {"demo", {"quillmoor", "123456", 2}},
  };
  return accounts;
}

// How long the queue keeps a client waiting per answer: the client asks again at once.
constexpr std::chrono::milliseconds kQueuePace{400};

struct LoginDemo {
  std::mutex mutex;
  std::map<std::string, std::string> cookies;         // issued cookie -> account
  std::map<std::string, std::string> responseTokens;  // two-factor step -> account
  struct Place {
    std::string account;
    int answersLeft;
  };
  std::map<std::string, Place> queue;  // queue token -> place
  std::mt19937_64 random{std::random_device{}()};

  std::string token() {
    static const char digits[] = "0123456789abcdef";
    std::string made;
    for (int i = 0; i < 32; ++i) made += digits[random() % 16];
    return made;
  }

  ZRVJSON signIn(const std::string& account) {
    std::string cookie = token();
    cookies[cookie] = account;
    return {{"success", "true"},
            {"cookie", cookie},
            {"gameserver", "127.0.0.1:7000"},
            {"banner", "Welcome to Quillmoor, " + account + "!"}};
  }
};

// The first "delayed" answer, after the client has been kept waiting for one turn.
ZRVJSON enterQueue(LoginDemo& demo, std::unique_lock<std::mutex>& lock, const std::string& account, int answers) {
  std::string token = demo.token();
  demo.queue[token] = {account, answers - 1};
  lock.unlock();
  std::this_thread::sleep_for(kQueuePace);
  return {{"success", "delayed"}, {"queueToken", token}, {"position", answers}};
}

ZRVJSON refused(const std::string& banner) { return {{"success", "false"}, {"banner", banner}}; }

int hexValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

std::string percentDecoded(const std::string& text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 && hexValue(text[i + 2]) >= 0) {
      decoded += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      decoded += text[i] == '+' ? ' ' : text[i];
    }
  }
  return decoded;
}

// The form's fields; the client writes "(null)" for a value it does not have.
std::map<std::string, std::string> formFields(const std::string& body) {
  std::map<std::string, std::string> fields;
  std::size_t start = 0;
  while (start <= body.size()) {
    std::size_t end = body.find('&', start);
    if (end == std::string::npos) end = body.size();
    std::string pair = body.substr(start, end - start);
    std::size_t equals = pair.find('=');
    if (equals != std::string::npos && pair.substr(equals + 1) != "(null)") {
      fields[percentDecoded(pair.substr(0, equals))] = percentDecoded(pair.substr(equals + 1));
    }
    start = end + 1;
  }
  return fields;
}

std::optional<std::string> field(const std::map<std::string, std::string>& fields, const char* name) {
  auto found = fields.find(name);
  return found == fields.end() ? std::nullopt : std::optional<std::string>(found->second);
}

ZRVJSON answer(LoginDemo& demo, const std::map<std::string, std::string>& fields) {
  std::unique_lock lock(demo.mutex);
  if (auto cookie = field(fields, "cookie")) {
    auto found = demo.cookies.find(*cookie);
    if (found == demo.cookies.end()) return refused("This saved login has expired. Please sign in with your password.");
    return demo.signIn(found->second);
  }
  if (auto token = field(fields, "queueToken")) {
    auto place = demo.queue.find(*token);
    if (place == demo.queue.end()) return refused("You left the login queue. Please sign in again.");
    if (place->second.answersLeft-- > 0) {
      int position = place->second.answersLeft + 1;
      lock.unlock();
      std::this_thread::sleep_for(kQueuePace);
      return {{"success", "delayed"}, {"queueToken", *token}, {"position", position}};
    }
    std::string account = place->second.account;
    demo.queue.erase(place);
    return demo.signIn(account);
  }
  auto code = field(fields, "appToken");
  auto step = field(fields, "authToken");
  if (code && step) {
    auto found = demo.responseTokens.find(*step);
    if (found == demo.responseTokens.end()) return refused("The two-factor step has expired. Please sign in again.");
    const DemoAccount& account = demoAccounts().at(found->second);
    if (*code != account.code) return refused("That two-factor code is not correct.");
    std::string name = found->second;
    demo.responseTokens.erase(found);
    if (account.queueAnswers > 0) return enterQueue(demo, lock, name, account.queueAnswers);
    return demo.signIn(name);
  }

  auto username = field(fields, "username");
  auto password = field(fields, "password");
  auto account = username ? demoAccounts().find(*username) : demoAccounts().end();
  if (account == demoAccounts().end() || !password || *password != account->second.password) {
    return refused("Incorrect username or password.");
  }
  if (account->second.code) {
    std::string token = demo.token();
    demo.responseTokens[token] = account->first;
    return {{"success", "partial"},
            {"responseToken", token},
            {"banner", "Enter the code from your authenticator app."}};
  }
  if (account->second.queueAnswers > 0) return enterQueue(demo, lock, account->first, account->second.queueAnswers);
  return demo.signIn(account->first);
}

}  // namespace

void registerLoginRoutes(httplib::Server& server, DemoState&) {
  auto demo = std::make_shared<LoginDemo>();
  server.Post("/api/login", [demo](const httplib::Request& request, httplib::Response& response) {
    response.set_content(answer(*demo, formFields(request.body)).dump(), "application/json");
  });
}
