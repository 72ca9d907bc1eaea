// The tool's manual pages: sfl(1) and one page per command (sfl-put(1),
// sfl-blocks-append(1), ...), written in roff from the same command tables
// that `--help` prints, with the examples and exit statuses both show.
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"

namespace cli {
namespace {

struct Extra {
  const char* command;
  const char* examples;  // "$ command" lines with what they print
};

const Extra kExtras[] = {
    {"create",
     "$ sfl create\n2.17.4113 ./sfl-store/2/17/4113\n"
     "$ sfl create notes/a.txt notes/b.txt\n2.17.4114 ./sfl-store/2/17/4114\n"
     "2.17.4114:1\n2.17.4114:2\n"},
    {"put",
     "$ sfl put 2.17.4113 notes/*.txt | tee stored.txt\n"
     "2.17.4113:1 notes/alpha.txt\n2.17.4113:2 notes/beta.txt\n"
     "$ tar cf - notes | sfl put --new-container-if-full 2.17.4113\n2.17.4113:3\n"},
    {"get", "$ sfl get 2.17.4113:2\nbeta beta\n$ sfl get 2.17.4113:3 -o notes.tar\n"},
    {"ls",
     "$ sfl ls --limit 1\n"
     "ITEMS        BYTES      HOLES  CONTAINER PATH\n"
     "    3         4152          0  2.17.4113 ./sfl-store/2/17/4113\n"
     "1 of 2 containers shown; --skip 1 for the next\n"
     "$ sfl ls 2.17.4113 --json\n"},
    {"stat", "$ sfl stat 2.17.4113:2\n"},
    {"rm", "$ sfl rm 2.17.4113:1 2.17.4113:2\n$ sfl rm 2.17.4113:1\n"
           "sfl rm: 2.17.4113:1: already deleted\n"},
    {"attach", "$ sfl attach 2.17.4113:2\n2\n"},
    {"detach", "$ sfl detach 2.17.4113:2\n1\n"},
    {"truncate", "$ sfl truncate 2.17.4113:2 4\n"},
    {"cat", "$ sfl cat 2.17.4113:1 notes/local.txt\n"},
    {"lines", "$ sfl lines 2.17.4113:1 --count\n"},
    {"write", "$ printf 'BETA' | sfl write 2.17.4113:2 0\n"},
    {"blocks append", "$ seq 3 | sfl blocks append 2.17.4113\n2.17.4113:4\n"},
    {"blocks read", "$ sfl blocks read 2.17.4113:4 1-2\n"},
    {"blocks list", "$ sfl blocks list 2.17.4113:4\n"},
    {"blocks free", "$ sfl blocks free 2.17.4113:4 1\n"},
    {"blocks compact", "$ sfl blocks compact 2.17.4113:4\n"},
    {"blocks move", "$ sfl blocks move 2.17.4113:4 0 2\n"},
    {"compact", "$ sfl compact 2.17.4113\n2.17.4113  4152 -> 4096 bytes (56 freed)\n"},
    {"check",
     "$ sfl check --all --quiet\n1 container checked, 0 with faults\n"
     "$ sfl check --repair 2.17.4113\n"},
    {"dump", "$ sfl dump 2.17.4113 --item 1\n"},
    {"service", "$ sfl service status\n$ sfl service stop --force\n"},
    {"stats",
     "$ sfl stats\ncontainers             1\nitems                  2\nbytes stored           3010\n"
     "bytes on disk          4152\nfree in holes          56\nover compaction limits 0\n"},
    {"backup",
     "$ sfl backup /backup/mon\n2.17.4113  4152 bytes, writers kept out 0.2 ms\n"
     "1 container copied, 0 unchanged, 4152 bytes, all checked clean\n"
     "stamp 1795520547000000000: give it to --since for the next backup\n"
     "$ sfl backup /backup/tue --since 1795520547000000000\n"},
    {"import",
     "$ sfl import Maildir --map mail.map\n"
     "sfl import: 3 files: 3 stored now, 0 by an earlier run\n"
     "$ cat mail.map\n2.17.4120:1 cur/1700000000.1.host:2,S\n"
     "2.17.4120:2 cur/1700000001.2.host:2,S\n2.17.4120:3 new/1700000002.3.host\n"},
    {"export",
     "$ sfl export --all out --names mail.map --manifest out.manifest\n"
     "sfl export: 3 files, 5120 bytes\n$ diff -r Maildir out\n"
     "$ sfl export 2.17.4120:2 one --manifest one.manifest\n"
     "sfl export: 1 files, 1706 bytes\n"},
    {"restore", "$ sfl restore /backup/mon --beside ./restored\n1 container restored into ./restored\n"},
};

const Extra* ExtraOf(const Command& cmd) {
  for (const Extra& e : kExtras)
    if (std::strcmp(e.command, cmd.name) == 0) return &e;
  return nullptr;
}

// Text as roff takes it: backslashes doubled, '-' as a hyphen-minus, a
// leading '.' or '\'' guarded.
std::string Roff(const std::string& text) {
  std::string out;
  bool lineStart = true;
  for (char c : text) {
    if (lineStart && (c == '.' || c == '\'')) out += "\\&";
    if (c == '\\')
      out += "\\e";
    else if (c == '-')
      out += "\\-";
    else
      out += c;
    lineStart = c == '\n';
  }
  return out;
}

std::string PageName(const Command& cmd) {
  std::string s = std::string("sfl-") + cmd.name;
  for (char& c : s)
    if (c == ' ') c = '-';
  return s;
}

std::string Upper(std::string s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

std::string OptionName(const OptSpec& o) {
  std::string s = "--" + std::string(o.name);
  if (o.shortName != 0) s = std::string("-") + o.shortName + ", " + s;
  if (o.takesValue) s += " <value>";
  return s;
}

const char kEnvironment[] =
    ".TP\n.B SFL_STORE_ROOT\nthe store root (default ./sfl\\-store; --store sets it)\n"
    ".TP\n.B SFL_RUN_DIR\nthe interest service's run directory (default "
    "$XDG_RUNTIME_DIR/sfl, else /tmp/sfl\\-run\\-<uid>)\n"
    ".TP\n.B SFL_LOG_LEVEL\nthe library's log threshold (the tool lowers it to 1 unless it, "
    "SFL_CONFIG or \\-v is set)\n"
    ".TP\n.B SFL_CONFIG\na file of further settings\n"
    ".TP\n.B TMPDIR\nwhere standard input is kept while it is stored (default /tmp)\n";

const char kFiles[] =
    ".TP\n.I <root>/<domain>/<subdomain>/<fileid>[.<name>]\na container file of the store\n"
    ".TP\n.I <run directory>/sfl\\-monitor.log\nthe interest service's log\n"
    ".TP\n.I <run directory>/sfl\\-monitor.prom\nthe interest service's counts (metrics text format)\n";

std::string Page(const std::string& name, const std::string& summary, const std::string& synopsis,
                 const std::string& description, const std::string& options,
                 const std::string& exitStatus, const char* examples, const std::string& seeAlso) {
  std::string s = ".TH " + Upper(name) + " 1 \"\" \"sfl 1.0.0\" \"sfl manual\"\n";
  s += ".SH NAME\n" + Roff(name) + " \\- " + Roff(summary) + "\n";
  s += ".SH SYNOPSIS\n" + synopsis;
  s += ".SH DESCRIPTION\n" + description;
  if (!options.empty()) s += ".SH OPTIONS\n" + options;
  s += ".SH EXIT STATUS\n" + Roff(exitStatus) + "\n";
  s += ".SH ENVIRONMENT\n" + std::string(kEnvironment);
  s += ".SH FILES\n" + std::string(kFiles);
  if (examples != nullptr) s += ".SH EXAMPLES\n.nf\n.RS 4\n" + Roff(examples) + ".RE\n.fi\n";
  s += ".SH SEE ALSO\n" + seeAlso + "\n";
  return s;
}

// The description as filled paragraphs; indented lines are kept as they are.
std::string Paragraphs(const std::string& text) {
  std::string out;
  size_t start = 0;
  bool literal = false;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    start = end + 1;
    const bool indented = !line.empty() && line[0] == ' ';
    if (indented && !literal) out += ".nf\n";
    if (!indented && literal) out += ".fi\n";
    literal = indented;
    out += line.empty() ? ".PP\n" : Roff(line) + "\n";
  }
  if (literal) out += ".fi\n";
  return out;
}

void WriteFile(const std::string& path, const std::string& text) {
  FILE* f = std::fopen(path.c_str(), "w");
  if (f == nullptr) throw SystemFailure{errno, path, "writing"};
  const bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  if (std::fclose(f) != 0 || !ok) throw SystemFailure{errno, path, "writing"};
}

}  // namespace

const char* ExamplesOf(const Command& cmd) {
  const Extra* e = ExtraOf(cmd);
  return e != nullptr ? e->examples : nullptr;
}

std::string ExitStatusOf(const Command& cmd) {
  const std::string name = cmd.name;
  if (name == "check")
    return "0 no container has a fault, 1 one has or a check failed, 2 bad usage, "
           "3 a container could not be read";
  if (name == "ls" || name == "stats")
    return "0 success, 1 failure, 2 bad usage, 3 part of the store could not be read";
  if (name == "backup") return "0 every container copied and checked clean, 1 failure (no manifest written), 2 bad usage, 3 part of the store could not be read";
  if (name == "ls") return "0 success, 1 failure, 2 bad usage, 3 part of the store could not be read";
  return "0 success, 1 failure, 2 bad usage";
}

std::string ManPage(const Command& cmd) {
  std::string options;
  for (const OptSpec& o : cmd.options) options += ".TP\n.B " + Roff(OptionName(o)) + "\n" + Roff(o.help) + "\n";
  options += ".TP\n.B \\-h, \\-\\-help\nshow the command's help\n";
  const std::string synopsis = ".B sfl " + Roff(cmd.name) + "\n" + Roff(cmd.synopsis) + "\n";
  const std::string description =
      cmd.details != nullptr && *cmd.details != '\0' ? Paragraphs(cmd.details) : Roff(cmd.summary) + "\n";
  return Page(PageName(cmd), cmd.summary, synopsis, description, options, ExitStatusOf(cmd),
              ExamplesOf(cmd), ".BR sfl (1),\n.BR sfl\\-monitor (8)");
}

std::string OverviewPage(const std::vector<const Command*>& all, const std::string& overview) {
  std::string commands;
  std::string seeAlso;
  for (const Command* c : all) {
    commands += ".TP\n.BR " + Roff(PageName(*c)) + " (1)\n" + Roff(c->summary) + "\n";
    seeAlso += ".BR " + Roff(PageName(*c)) + " (1),\n";
  }
  const std::string description = Paragraphs(overview) + ".SS Commands\n" + commands;
  const std::string synopsis = ".B sfl\n[\\-\\-store DIR] [\\-v] <command> [arguments]\n";
  const std::string options =
      ".TP\n.B \\-\\-store DIR\nthe store root (sets SFL_STORE_ROOT)\n"
      ".TP\n.B \\-v, \\-\\-verbose\nlet the library's warnings through to standard error\n"
      ".TP\n.B \\-\\-version\nprint the version\n"
      ".TP\n.B \\-h, \\-\\-help\nshow the help; sfl <command> \\-\\-help for a command's\n";
  return Page("sfl", "work with sfl container files and their items", synopsis, description, options,
              "0 success, 1 failure, 2 bad usage, 3 (check, ls) part of the store could not be read",
              "$ sfl create\n2.17.4113 ./sfl-store/2/17/4113\n$ sfl put 2.17.4113 notes/*.txt\n"
              "$ sfl ls\n$ sfl check --all --quiet\n",
              seeAlso + ".BR sfl\\-monitor (8)");
}

void WriteManPages(const std::string& dir, const std::vector<const Command*>& all,
                   const std::string& overview) {
  mkdir(dir.c_str(), 0755);
  WriteFile(dir + "/sfl.1", OverviewPage(all, overview));
  for (const Command* c : all) WriteFile(dir + "/" + PageName(*c) + ".1", ManPage(*c));
}

}  // namespace cli
