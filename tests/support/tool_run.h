// Test support: running a built program (the `sfl` tool above all) as its
// own process, with standard input from a string and standard output and
// error captured, so tool tests check exit statuses and text as a shell
// user would see them.
#ifndef SFL_TEST_TOOL_RUN_H
#define SFL_TEST_TOOL_RUN_H

#include <map>
#include <string>
#include <vector>

#include "sfl.h"

namespace sfltest {

struct Outcome {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
  std::string err;
};

// The whole content of a file ("" when it cannot be read).
std::string ReadWholeFile(const std::string& path);

// Runs `argv` (argv[0] a path) with `input` on standard input; `cwd` and the
// environment changes apply to the child only.
Outcome Exec(const std::vector<std::string>& argv, const std::string& input = "",
             const std::string& cwd = "", const std::map<std::string, std::string>& env = {},
             const std::vector<std::string>& unset = {});

// The build directory (the tools are in its bin/).
std::string BinDir();

// The repository's root (README.md, tools/).
std::string SourceRoot();

// Runs the built `sfl` with `args`.
Outcome Sfl(const std::vector<std::string>& args, const std::string& input = "");

// A reference in the text form the tool takes.
std::string RefText(const sfl_ItemRef& ref);

}  // namespace sfltest

#endif  // SFL_TEST_TOOL_RUN_H
