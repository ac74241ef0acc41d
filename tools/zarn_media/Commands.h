// The zarn-media subcommands. Each takes the arguments after its name, prints
// its own help for --help, and returns the process exit code (Cli.h).
#pragma once

namespace Velto::Zarn {
class CZarnFileSystem;
}

namespace ZarnMedia {

class COptions;

int runRecord(int argc, char** argv);
int runExport(int argc, char** argv);
int runClips(int argc, char** argv);
int runFiles(int argc, char** argv);
int runStatus(int argc, char** argv);
int runLock(int argc, char** argv);
int runUnlock(int argc, char** argv);
int runPolicy(int argc, char** argv);
int runDelete(int argc, char** argv);
int runInfo(int argc, char** argv);
int runRepair(int argc, char** argv);
int runMaintain(int argc, char** argv);
int runMigrate(int argc, char** argv);
int runDiscard(int argc, char** argv);
int runStats(int argc, char** argv);
int runTimeline(int argc, char** argv);

// For the commands that work below the media client (repair, maintain):
// connects `fs` to the store that `options` names, refusing a directory that
// holds no store. kExitOk, or an exit code after printing why.
int connectStore(const COptions& options, Velto::Zarn::CZarnFileSystem& fs);

// Help text shared by every subcommand's --help.
extern const char* const kCommonHelp;

}  // namespace ZarnMedia
