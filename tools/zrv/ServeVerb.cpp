// zrv serve: the embedded development server in the foreground, until SIGINT or SIGTERM.

#include "Arguments.h"
#include "Verbs.h"
#include "serve/DemoServer.h"

#include <pthread.h>
#include <signal.h>

#include <filesystem>
#include <iostream>

int runServe(const std::vector<std::string>& words) {
  Arguments arguments(words, {}, {"--port", "--host", "--content"});
  arguments.expectPositional(0, 0);
  long port = arguments.number("--port", 0, 65535).value_or(8080);
  std::string host = arguments.value("--host").value_or("127.0.0.1");

  // The serving threads inherit the blocked signals; this thread takes them with sigwait.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  DemoServerOptions options;
  if (auto content = arguments.value("--content")) {
    if (!std::filesystem::is_directory(*content)) throw UsageError("--content needs a published folder");
    options.contentDirectory = std::filesystem::absolute(*content);
  }
  DemoServer server(options);
  int bound = server.start(host, static_cast<int>(port));
  std::cout << "Serving on http://" << host << ":" << bound << std::endl;
  int received = 0;
  sigwait(&stopSignals, &received);
  server.stop();
  return kExitSuccess;
}
