// ZRVKit in an application built on a GLib main loop (a GTK launcher, for instance). The loop watches the main
// queue's wake-up descriptor and drains the queue when it becomes readable, so every callback the library
// sends to the main queue runs on the loop's thread between the loop's other events.
//
//   app SERVER [FILE...]      e.g.  app http://127.0.0.1:8080 Quillmoor.bin
//
// It asks SERVER for the status, digests the files on the work queue, and quits once both answers are in.
// Every request goes to SERVER: the real hosts are never contacted.

#include <ZRVKit/PerformBlock.h>
#include <ZRVKit/ZRVExtensions.h>
#include <ZRVKit/ZRVHosts.h>
#include <ZRVKit/ZRVMainQueue.h>
#include <ZRVKit/ZRVServerStatus.h>

#include <glib-unix.h>
#include <glib.h>

#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

namespace {

struct Application {
  GMainLoop* loop = nullptr;
  int pendingAnswers = 0;
  bool allOnMainThread = true;
  bool succeeded = false;

  // Runs on the main queue, hence on the loop's thread.
  void answerArrived() {
    allOnMainThread = allOnMainThread && ZRVMainQueue::isMainThread();
    if (--pendingAnswers > 0) return;
    // A delayed block scheduled from the main thread comes back through the main queue too.
    PerformBlock::performAfterDelay(0.1, [this] {
      succeeded = allOnMainThread && ZRVMainQueue::isMainThread();
      g_main_loop_quit(loop);
    });
  }
};

gboolean drainMainQueue(gint, GIOCondition, gpointer) {
  ZRVOperationQueue::mainQueue().drain();
  return G_SOURCE_CONTINUE;
}

gboolean giveUp(gpointer data) {
  std::cerr << "no answer in time\n";
  g_main_loop_quit(static_cast<Application*>(data)->loop);
  return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: " << argv[0] << " SERVER [FILE...]   (SERVER like http://127.0.0.1:8080)\n";
    return 2;
  }
  ZRVHosts::setRedirect(std::string(argv[1]));
  if (!ZRVHosts::URL(ZRVHost::webAPI, "/api/status")) {
    std::cerr << "not a server address: " << argv[1] << "\n";
    return 2;
  }
  std::vector<std::filesystem::path> files(argv + 2, argv + argc);

  Application application;
  application.loop = g_main_loop_new(nullptr, FALSE);
  guint watch = g_unix_fd_add(ZRVOperationQueue::mainQueue().wakeUpFileDescriptor(), G_IO_IN, drainMainQueue, nullptr);
  guint deadline = g_timeout_add_seconds(60, giveUp, &application);

  application.pendingAnswers = 2;
  ZRVServerStatus::currentStatus().getServerStatus([&application](bool online, std::optional<ZRVError> error) {
    std::string status = online ? "online" : "offline";
    if (error) status += " (assumed: " + error->localizedDescription() + ")";
    ZRVOperationQueue::mainQueue().addOperationWithBlock([&application, status] {
      std::cout << "server: " << status << "\n";
      application.answerArrived();
    });
  });
  ZRVOperationQueue::workQueue().addOperationWithBlock([&application, files] {
    std::vector<std::string> lines;
    for (const auto& file : files) {
      std::string digest = ZRVExtensions::sha1Hash(file);
      lines.push_back((digest.empty() ? std::string("(cannot be read)") : digest) + "  " + file.string());
    }
    PerformBlock::performOnMainThreadWaitUntilDone(false, [&application, lines] {
      for (const auto& line : lines) std::cout << line << "\n";
      application.answerArrived();
    });
  });

  g_main_loop_run(application.loop);

  if (application.succeeded) g_source_remove(deadline);
  g_source_remove(watch);
  g_main_loop_unref(application.loop);
  std::cout << (application.succeeded ? "every callback ran on the GLib loop's thread\n" : "failed\n");
  return application.succeeded ? 0 : 1;
}
