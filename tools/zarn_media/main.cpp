// zarn-media: records video into a Zarn store, queries it and exports it back.
// A host of the library like any other: it includes only the public header
// and links only libZarnMediaClient.
#include <cstdio>
#include <cstring>

#include "Cli.h"
#include "Commands.h"

namespace ZarnMedia {

const char* const kCommonHelp =
    "\n"
    "common options:\n"
    "  --store ADDRESS        the store: a directory or file:// URL (default ./zarn-store)\n"
    "  --json                 machine-readable output on stdout\n"
    "  --verbose              show the library's log (info level; default: off; a set\n"
    "                         ZARN_LOG_LEVEL wins)\n"
    "  -h, --help             this help\n"
    "\n"
    "Times are UTC. Exit codes: 0 done, 1 the library failed or refused, 2 bad usage or\n"
    "empty range, 3 store cannot be opened, 4 unreadable input or not H.264/H.265 video\n"
    "(or output not writable), 5 unknown stream or nothing recorded in the range,\n"
    "6 refused by the store's lock ratio limit, 130 interrupted.\n";

namespace {

const char* const kMainHelp =
    "usage: zarn-media COMMAND [options]\n"
    "\n"
    "commands:\n"
    "  record    record H.264/H.265 video (file, URL or --synthetic) into a stream\n"
    "  export    write a time range of a stream to MP4/MKV/Annex-B, or raw frames to stdout\n"
    "  clips     list recorded clips of a stream\n"
    "  files     list record files of a stream\n"
    "  status    draw the recorded-or-not bitmap, one line per hour\n"
    "  lock      lock a time range against recycling\n"
    "  unlock    unlock a time range\n"
    "  policy    apply a recycling policy (time or space) to a stream now\n"
    "  maintain  run one recycling pass now: policies, discarded streams, urgent space\n"
    "  migrate   move the files waiting on local disks into the store now\n"
    "  discard   discard a stream: its recordings age out and its buckets go\n"
    "  delete    delete a time range of a stream, or all of it\n"
    "  info      capacity, free space, lock ratio, streams and their recorded span\n"
    "  repair    rebuild what a crashed recorder left unfinished (indexes, names)\n"
    "  stats     print the library's statistics file\n"
    "  timeline  draw the recordings of streams over a time range as an SVG picture\n"
    "\n"
    "`zarn-media COMMAND --help` describes each command.\n";

struct Command {
  const char* name;
  int (*run)(int, char**);
};

const Command kCommands[] = {
    {"record", runRecord}, {"export", runExport}, {"clips", runClips},   {"files", runFiles},
    {"status", runStatus}, {"lock", runLock},     {"unlock", runUnlock}, {"policy", runPolicy},
    {"delete", runDelete}, {"info", runInfo}, {"repair", runRepair}, {"maintain", runMaintain}, {"migrate", runMigrate},
    {"discard", runDiscard}, {"stats", runStats}, {"timeline", runTimeline},
};

}  // namespace

}  // namespace ZarnMedia

int main(int argc, char** argv) {
  using namespace ZarnMedia;
  if (argc < 2 || !std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h") || !std::strcmp(argv[1], "help")) {
    std::printf("%s%s", kMainHelp, kCommonHelp);
    return argc < 2 ? kExitUsage : kExitOk;
  }
  for (const Command& command : kCommands) {
    if (std::strcmp(argv[1], command.name) == 0) return command.run(argc - 2, argv + 2);
  }
  return fail(kExitUsage, "unknown command '%s' (see zarn-media --help)", argv[1]);
}
