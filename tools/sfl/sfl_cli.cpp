// `sfl`: the command-line tool over the storage library. This file owns the
// entry point: global options, finding the command, the overall help, and
// handing every command to the one routine that reports its failures.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"

namespace {

using cli::Command;

const char kUsage[] = "usage: sfl [--store DIR] [-v] <command> [arguments]\n\n";

// What `sfl --help` and the sfl(1) page say about the tool as a whole.
const char kOverview[] =
    "Stores files as items inside container files (up to 7 items each) and reads them\n"
    "back, through the sfl storage library.\n"
    "\n"
    "Naming. A container or item is named by its reference in text form,\n"
    "    DOMAIN.SUBDOMAIN.FILEID[.NAME][:ITEM]\n"
    "    e.g. 2.17.4113  or  2.17.4113.abc:3\n"
    "(three decimal numbers, an optional name tag of up to 3 characters from\n"
    "[A-Za-z0-9_-], and ':ITEM', the item number 1 to 7, to name an item of the\n"
    "container), or by path: the container's file under the store root, with ':ITEM'\n"
    "appended for an item (e.g. ./sfl-store/2/17/4113.abc:3).\n";

const char kTrailer[] =
    "\n"
    "global options:\n"
    "  --store DIR      the store root (default: SFL_STORE_ROOT, else ./sfl-store)\n"
    "  -v, --verbose    let the library's warnings through to standard error\n"
    "  --version        print the version\n"
    "  -h, --help       show this help; 'sfl <command> --help' for a command's\n"
    "\n"
    "exit status: 0 success, 1 failure, 2 bad usage, 3 (check, ls) part of the store\n"
    "could not be read. Errors are one line on standard error: 'sfl <command>:\n"
    "<subject>: <what happened>: <where>; <what to do>'.\n";

std::vector<const Command*> AllCommands() {
  std::vector<const Command*> all;
  for (const auto* table : {&cli::ItemCommands(), &cli::StreamCommands(), &cli::BlockCommands(),
                            &cli::ServiceCommands(), &cli::CheckCommands(),
                            &cli::CompactCommands(), &cli::DumpCommands(), &cli::StatsCommands(),
                            &cli::BackupCommands(), &cli::ImportCommands()})
    for (const Command& c : *table) all.push_back(&c);
  return all;
}

void PrintOverview() {
  std::printf("%s%s\ncommands:\n", kUsage, kOverview);
  for (const Command* c : AllCommands()) std::printf("  %-15s %s\n", c->name, c->summary);
  std::printf("%s", kTrailer);
}

void PrintBlocksHelp() {
  std::printf("usage: sfl blocks <append|read|list|free|compact|move> ...\n\ncommands on blocked items:\n");
  for (const Command& c : cli::BlockCommands())
    std::printf("  sfl %s %s\n      %s\n", c.name, c.synopsis, c.summary);
}

const Command* Find(const std::string& name) {
  for (const Command* c : AllCommands())
    if (name == c->name) return c;
  return nullptr;
}

int Main(int argc, char** argv) {
  std::vector<std::string> words(argv + 1, argv + argc);
  size_t i = 0;
  bool verbose = false;
  for (; i < words.size() && words[i].size() > 1 && words[i][0] == '-'; ++i) {
    const std::string& w = words[i];
    if (w == "--help" || w == "-h") {
      PrintOverview();
      return cli::kExitOk;
    }
    if (w == "--man-pages") {
      // Writes the manual pages (the build makes them this way).
      if (i + 1 >= words.size()) throw cli::UsageError{"--man-pages needs a directory"};
      cli::WriteManPages(words[i + 1], AllCommands(), kOverview);
      return cli::kExitOk;
    }
    if (w == "--version") {
      std::printf("sfl 1.0.0\n");
      return cli::kExitOk;
    }
    if (w == "-v" || w == "--verbose") {
      verbose = true;
    } else if (w == "--store" || w.compare(0, 8, "--store=") == 0) {
      std::string dir;
      if (w == "--store") {
        if (i + 1 >= words.size()) throw cli::UsageError{"--store needs a directory"};
        dir = words[++i];
      } else {
        dir = w.substr(8);
      }
      if (dir.empty()) throw cli::UsageError{"--store needs a directory"};
      setenv("SFL_STORE_ROOT", dir.c_str(), 1);
    } else {
      throw cli::UsageError{"unknown option '" + w + "' (see 'sfl --help')"};
    }
  }
  // The library logs its warnings to standard error; a command-line user
  // wants only the one error line, unless asking for more or configuring it.
  if (verbose)
    setenv("SFL_LOG_LEVEL", "5", 1);
  else if (std::getenv("SFL_LOG_LEVEL") == nullptr && std::getenv("SFL_CONFIG") == nullptr)
    setenv("SFL_LOG_LEVEL", "1", 1);

  if (i >= words.size()) throw cli::UsageError{"no command given (see 'sfl --help')"};
  std::string name = words[i++];
  bool wantHelp = false;
  if (name == "help") {
    if (i >= words.size()) {
      PrintOverview();
      return cli::kExitOk;
    }
    name = words[i++];
    wantHelp = true;
  }
  if (name == "blocks") {
    if (i < words.size() && (words[i] == "--help" || words[i] == "-h")) wantHelp = true;
    if (i >= words.size() || words[i][0] == '-') {
      if (!wantHelp) throw cli::UsageError{"missing blocks command: append, read, list, free, compact or move"};
      PrintBlocksHelp();
      return cli::kExitOk;
    }
    name += " " + words[i++];
  }
  const Command* cmd = Find(name);
  if (cmd == nullptr) throw cli::UsageError{"unknown command '" + name + "' (see 'sfl --help')"};
  cli::Args args;
  std::vector<std::string> rest(words.begin() + static_cast<long>(i), words.end());
  return cli::Report(cmd->name, [&] {
    if (wantHelp || !cli::ParseArgs(*cmd, rest, &args)) {
      cli::PrintCommandHelp(*cmd);
      return cli::kExitOk;
    }
    return cmd->run(args);
  });
}

}  // namespace

int main(int argc, char** argv) {
  sfl::SetCloseFailureHandler(cli::ForgetFailedClose);
  int rc = cli::Report("", [&] { return Main(argc, argv); });
  if (std::fflush(stdout) != 0)
    return cli::Report("", [] () -> int { throw cli::SystemFailure{errno, "standard output", "writing"}; });
  return rc;
}
