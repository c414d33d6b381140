#pragma once
// The route groups of the embedded server, one per service.

#include "serve/DemoServer.h"

namespace httplib {
class Server;
}

void registerStatusRoutes(httplib::Server& server, DemoState& state);
void registerContentRoutes(httplib::Server& server, DemoState& state);
void registerLoginRoutes(httplib::Server& server, DemoState& state);
void registerInvasionRoutes(httplib::Server& server, DemoState& state);
