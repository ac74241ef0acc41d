// The zarn-media subcommands. Each takes the arguments after its name, prints
// its own help for --help, and returns the process exit code (Cli.h).
#pragma once

namespace ZarnMedia {

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
int runDiscard(int argc, char** argv);
int runStats(int argc, char** argv);
int runTimeline(int argc, char** argv);

// Help text shared by every subcommand's --help.
extern const char* const kCommonHelp;

}  // namespace ZarnMedia
