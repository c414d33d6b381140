// The content host: a published tree (content/, mirrors.txt, the framework archive) and the API's mirror
// list, which names this server's own content folder.

#include "serve/Routes.h"

#include <ZRVKit/ZRVJSON.h>

#include <httplib.h>

void registerContentRoutes(httplib::Server& server, DemoState& state) {
  if (!state.options.contentDirectory) return;
  // httplib refuses paths that climb out of the mounted folder.
  server.set_mount_point("/", state.options.contentDirectory->string());
  server.set_file_extension_and_mimetype_mapping("txt", "application/json");
  server.Get("/api/mirrors", [&state](const httplib::Request&, httplib::Response& response) {
    response.set_content(ZRVJSON::array({state.baseAddress + "/content/"}).dump(), "application/json");
  });
}
