// zarn-media migrate: moves the record files that a store outage left on the
// local disks into the store now, in one pass on this thread, as a recording
// process's migration worker does every few seconds (LocalView.h says why the
// tool runs it below the media client).
#include <cinttypes>
#include <cstdio>

#include "Cli.h"
#include "Commands.h"
#include "LocalView.h"

namespace ZarnMedia {

int runMigrate(int argc, char** argv) {
  static const char* const help =
      "usage: zarn-media migrate [--store ADDRESS] [--json]\n"
      "\n"
      "Moves the files waiting on the local disks into the store now, oldest first, in\n"
      "one pass: each is copied under a temporary name, checked, renamed into place and\n"
      "then removed from its disk, at the bandwidth \"stdfile_migrate_mbps\" allows. The\n"
      "disks are those \"stdfile_disk\" names in MediaConfig.cfg here (\"enable_cfg\": 1);\n"
      "a disk a running recorder holds is left to that recorder's own migration. Prints\n"
      "the files and bytes moved, the files that failed (they stay on their disk) and\n"
      "those left waiting (still open for writing, or renamed meanwhile), and what is\n"
      "still on the disks. Exit code 1 when a file failed.\n";
  COptions options({}, {});
  if (!options.parse(argc, argv)) return kExitUsage;
  if (options.help()) {
    std::printf("%s%s", help, kCommonHelp);
    return kExitOk;
  }
  if (!options.positional().empty()) {
    return fail(kExitUsage, "unexpected argument '%s' (see --help)", options.positional()[0].c_str());
  }
  CLocalView local;
  int rc = local.open(options);
  if (rc != kExitOk) return rc;
  if (local.configuredDisks() == 0) {
    return fail(kExitUsage, "no local disks here: MediaConfig.cfg in this directory names no \"stdfile_disk\" (or "
                "lacks \"enable_cfg\": 1)");
  }
  if (!local.active()) {
    return fail(kExitStore, "none of the %zu local disks can be opened: a running recorder holds them (its own "
                "migration moves their files), or they are missing", local.configuredDisks());
  }
  const Velto::Zarn::CMigration::PassResult pass = local.migrate();
  uint64_t leftFiles = 0, leftBytes = 0;
  for (const CLocalView::Disk& d : local.disks()) {
    leftFiles += d.awaitingFiles;
    leftBytes += d.awaitingBytes;
  }
  if (options.json()) {
    CJson()
        .beginObject()
        .value("movedFiles", pass.files)
        .value("movedBytes", pass.bytes)
        .value("failedFiles", pass.failed)
        .value("waitingFiles", pass.waiting)
        .value("leftFiles", leftFiles)
        .value("leftBytes", leftBytes)
        .endObject()
        .print();
  } else {
    std::printf("moved %" PRIu64 " file(s), %.2f MB into the store; %" PRIu64 " failed, %" PRIu64
                " waiting; %" PRIu64 " file(s), %.2f MB still on the local disks\n",
                pass.files, static_cast<double>(pass.bytes) / 1e6, pass.failed, pass.waiting, leftFiles,
                static_cast<double>(leftBytes) / 1e6);
  }
  if (pass.failed != 0) {
    return fail(kExitFailed, "%" PRIu64 " file(s) could not be moved and stay on the local disks (run with --verbose "
                "for why)", pass.failed);
  }
  return kExitOk;
}

}  // namespace ZarnMedia
