#include "Verbs.h"

const std::vector<Verb>& allVerbs() {
  static const std::vector<Verb> verbs = {
      {"status", "status [--json]", "Tells whether the game servers are online.",
       "Asks the web API for the server status. The servers count as online when the answer cannot be read;\n"
       "the reason is printed then. Exit status: 0 online, 1 offline, 3 status unknown (reported online).\n"
       "  --json   print {\"online\": true|false, \"error\": null|\"text\"}",
       runStatus},
      {"serve", "serve [--port N] [--host ADDRESS] [--content DIR]", "Runs the embedded development server.",
       "Serves the game's web API and content on the loopback interface for development and the demo.\n"
       "  --port N         port to listen on (default 8080; 0 picks a free one)\n"
       "  --host ADDRESS   address to listen on (default 127.0.0.1)\n"
       "  --content DIR    serve a tree made by `zrv publish` (content/, mirrors.txt, /api/mirrors)\n"
       "Demo accounts of /api/login: player/quillmoor signs in at once; twofactor/quillmoor asks for the\n"
       "code 123456; queued/quillmoor waits three turns in the login queue; demo/quillmoor needs the code and then\n"
       "waits two turns; other passwords are refused.",
       runServe},
      {"update", "update [--install DIR] [--dev] [--stall-timeout SECONDS] [--json]", "Brings the game files up to date.",
       "Reads the patch manifest, makes the folders its files need inside DIR, patches or downloads what\n"
       "differs, then checks every file's SHA-1 against the manifest. A file that is still wrong is fetched\n"
       "again from the mirrors that did not deliver the bad copy; if none has a good copy, each such file is\n"
       "listed with its expected and found digest, its size and the mirror and HTTP status that served it.\n"
       "Progress: one status line on a terminal, else one plain line per event.\n"
       "  --install DIR            the install folder (default: the launcher's container)\n"
       "  --dev                    use the development server's manifest and mirror list\n"
       "  --stall-timeout SECONDS  give up when, for this long, no file finished and less than 1 KiB/s\n"
       "                           arrived (default 120; 0 never gives up)\n"
       "  --json                   print the outcome as {\"upToDate\", \"outcome\", \"message\", \"badFiles\", ...}\n"
       "Exit status: 0 every file matches the manifest, 1 the update failed, stalled or left files that\n"
       "differ, 3 the server could not be reached.",
       runUpdate},
      {"publish", "publish NEW_DIR OUT_DIR [--from OLD_DIR]... [--mirror URL]... [--base-url URL] [--framework ZIP] [--jobs N]",
       "Lays out a build for the content host.",
       "Writes OUT_DIR/content/patchmanifest.txt, the bzip2 files, bzip2 patches from every --from build\n"
       "and OUT_DIR/mirrors.txt; serve the result with `zrv serve --content OUT_DIR`. Every file is written\n"
       "beside its place and renamed over it, the manifest last; files of any size are streamed.\n"
       "  --from OLD_DIR   an older build to make patches from (repeatable)\n"
       "  --mirror URL     a mirror for mirrors.txt, tried in the order given (repeatable;\n"
       "                   default: BASE_URL/content/)\n"
       "  --base-url URL   the address the tree will be served from (default http://127.0.0.1:8080)\n"
       "  --framework ZIP  the Cg.framework archive to serve beside the content (without it, fresh\n"
       "                   installs fail: a warning says so)\n"
       "  --only WORD      platform word for every file (repeatable; default darwin)\n"
       "  --jobs N         files published at once (default: one per core; the output is the same)\n"
       "  --quiet          print only the summary",
       runPublish},
      {"play", "play USER [--install DIR] [--remember] [--password-stdin] [--forget-saved] [--dev] [--json]",
       "Signs in, updates the game and starts it.",
       "What the launcher does when the player presses Play: signs USER in (the saved login when there is\n"
       "one, else the password, the two-factor code and the login queue), brings the game files up to date\n"
       "with progress and checks them against the manifest (as `zrv update`), starts the game with the play\n"
       "cookie and game server of the login and waits for it. A game that fails the check is not started.\n"
       "Exit status: the game's own; 1 when a step failed, 3 when a server was unreachable.\n"
       "  --install DIR            the container to use: a folder named \"Quillmoor\" (default: the user's)\n"
       "  --remember               ask the server for a lasting login (and tell the game to keep the cookie)\n"
       "  --password-stdin         read the password, then any two-factor code, as lines of standard input\n"
       "  --forget-saved           ignore the saved login and use the password\n"
       "  --dev                    use the development server's manifest, mirrors and container\n"
       "  --stall-timeout SECONDS  give up the update as `zrv update` does (default 120; 0 never)\n"
       "  --json                   print the update's outcome as `zrv update --json` does\n"
       "  --timeout SECONDS        give up waiting for the login server after this long (default 300)",
       runPlay},
      {"demo", "demo [--keep]", "Runs the whole launcher flow against an embedded server.",
       "In a temporary home, starts the embedded server on a free loopback port, publishes two builds of a\n"
       "sample game, and runs the launcher's flow: server status, sign-in with a two-factor code and the\n"
       "login queue, a fresh install of build 1 into the empty container, then the update to build 2\n"
       "(patches and whole files), invasions, an option\n"
       "changed, and the sample game started. Ends with a summary and removes the temporary home.\n"
       "  --keep   leave the temporary home in place to look at",
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
      {"login", "login USER [--remember] [--password-stdin] [--forget-saved] [--json] [--timeout SECONDS]",
       "Signs in to the game's login service.",
       "Signs USER in. With a saved login for USER it signs in with the saved cookie; otherwise it asks for\n"
       "the password on the terminal without echo, and for a two-factor code when the server wants one.\n"
       "A successful login saves the play cookie (see `zrv logins`). Against `zrv serve`, try player,\n"
       "twofactor (code 123456) or queued, each with the password quillmoor.\n"
       "Exit status: 0 signed in, 1 refused, 3 no usable answer from the login server.\n"
       "  --remember         ask the server for a lasting login\n"
       "  --password-stdin   read the password, then any two-factor code, as lines of standard input\n"
       "  --forget-saved     ignore the saved login and use the password\n"
       "  --json             print {\"status\": N, \"response\": {the server's answer}}\n"
       "  --timeout SECONDS  give up waiting for an answer after this long (default 300)",
       runLogin},
      {"logins", "logins [--json] | logins remove USER", "Lists or removes saved logins.",
       "Lists the accounts with a saved login and says which store holds them: the Secret Service, or a\n"
       "private file when no Secret Service answers (ZRV_SECRET_STORE=secret-service|file chooses).\n"
       "`zrv logins remove USER` forgets the saved login of USER (exit status 1 when there was none).\n"
       "  --json   print {\"store\": \"secret-service\"|\"file\", \"accounts\": [...]}",
       runLogins},
      {"invasions", "invasions [--json] [--fresh]", "Lists the invasions under way and their defeat rates.",
       "Asks the web API for the current invasions and shows each with its department, progress, defeat\n"
       "rate and the estimated time left. Rates are measured from the first time zrv saw an invasion\n"
       "(kept in $XDG_CACHE_HOME/zrv); until they can be, they show as 1.50.\n"
       "Exit status: 0 listed (or none under way), 1 the feed reported an error, 3 feed unreachable.\n"
       "  --json    print the invasion records as a JSON array\n"
       "  --fresh   forget the invasions seen before and measure from now",
       runInvasions},
      {"options", "options [--file PATH] [set antialiasing N|music on|off|sfx on|off]",
       "Shows or changes the game's antialiasing, music and sound-effect options.",
       "Reads the game's settings file in the launcher's container (under $XDG_DATA_HOME) and shows the\n"
       "three options, or changes one of them and keeps everything else in the file. The game must have\n"
       "written the file once. Exit status: 0 done, 1 no usable settings file, 2 bad command line.\n"
       "  --file PATH   use another settings file",
       runOptions},
      {"unzip", "unzip ARCHIVE DEST [--no-overwrite] [--password P | --password-stdin]",
       "Unpacks a zip archive into a folder.",
       "Unpacks ARCHIVE into DEST (created when missing) with dates, permissions and links. Entries that would\n"
       "land outside DEST, be written through a link, or links pointing out of DEST are refused.\n"
       "Exit status: 0 every entry unpacked, 1 otherwise.\n"
       "  --no-overwrite     keep files that are already there\n"
       "  --password P       password of encrypted entries (ZipCrypto or WinZip AES)\n"
       "  --password-stdin   read that password as a line of standard input instead",
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
