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
      {"unzip", "unzip ARCHIVE DEST [--no-overwrite] [--password P]", "Unpacks a zip archive into a folder.",
       "Unpacks ARCHIVE into DEST (created when missing) with dates, permissions and links. Entries that would\n"
       "land outside DEST, be written through a link, or links pointing out of DEST are refused.\n"
       "Exit status: 0 every entry unpacked, 1 otherwise.\n"
       "  --no-overwrite   keep files that are already there\n"
       "  --password P     password of encrypted entries (needs a minizip built with decryption)",
       runUnzip},
      {"zip", "zip ARCHIVE PATH...", "Writes a zip archive.",
       "Writes ARCHIVE (replacing it) from the files PATH..., each under its own name, or from the contents of\n"
       "one folder PATH, each file under its path inside the folder.\n"
       "Exit status: 0 written, 1 a file could not be read or the archive written.",
       runZip},
      {"launch", "launch --cookie C --gameserver G [--persistent]", "Starts the game and waits for it.",
       "Unpacks the launcher's frameworks into the container (once per process, as the launcher does), starts\n"
       "the container's \"Quillmoor\" with the play cookie and game server, and waits for it to end.\n"
       "Exit status: the game's own (128 + N for a game killed by signal N), 1 when it could not start.\n"
       "  --cookie C       the play cookie of a login (visible to other local users in the process list)\n"
       "  --gameserver G   the game server address of the login\n"
       "  --persistent     tell the game to keep the cookie",
       runLaunch},
  };
  return verbs;
}
