#include "Verbs.h"

const std::vector<Verb>& allVerbs() {
  static const std::vector<Verb> verbs = {
      {"status", "status [--json]", "Tells whether the game servers are online.",
       "Asks the web API for the server status. The servers count as online when the answer cannot be read;\n"
       "the reason is printed then. Exit status: 0 online, 1 offline, 3 status unknown (reported online).\n"
       "  --json   print {\"online\": true|false, \"error\": null|\"text\"}",
       runStatus},
      {"serve", "serve [--port N] [--host ADDRESS]", "Runs the embedded development server.",
       "Serves the game's web API and content on the loopback interface for development and the demo.\n"
       "  --port N         port to listen on (default 8080; 0 picks a free one)\n"
       "  --host ADDRESS   address to listen on (default 127.0.0.1)",
       runServe},
      {"demo", "demo", "Runs the whole launcher flow against an embedded server.",
       "Starts the embedded server on a free loopback port, points the library at it and runs the\n"
       "launcher's flow, printing each step.",
       runDemo},
      {"diff", "diff OLD NEW PATCH [--raw]", "Makes a binary patch that turns OLD into NEW.",
       "Writes a bsdiff patch: \"BSDIFF40\" with bzip2-compressed streams, or \"BSDIFN40\" with the streams\n"
       "stored raw.\n"
       "  --raw   store the streams uncompressed",
       runDiff},
      {"patch", "patch OLD PATCH NEW", "Applies a binary patch to OLD and writes NEW.",
       "Applies a \"BSDIFF40\" or \"BSDIFN40\" patch through the library. A corrupt patch prints the failure\n"
       "(e.g. \"bsdiff: Corrupt patch\") and exits with status 1; NEW is then left alone.",
       runPatch},
  };
  return verbs;
}
