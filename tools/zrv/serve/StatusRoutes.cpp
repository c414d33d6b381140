// /api/status: the servers are online unless the demo says otherwise.

#include "serve/Routes.h"

#include <ZRVKit/ZRVJSON.h>

#include <httplib.h>

void registerStatusRoutes(httplib::Server& server, DemoState& state) {
  server.Get("/api/status", [&state](const httplib::Request&, httplib::Response& response) {
    ZRVJSON status = {{"online", state.online}, {"message", state.online ? "All systems go." : "Maintenance."}};
    response.set_content(status.dump(), "application/json");
  });
}
