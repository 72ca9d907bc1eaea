// cl_: showing errors to the person running a command. An escape is shown
// as one line on standard error: its group, reason, the reason's text from
// the message library, and the path of the file it concerns.
#ifndef KQ_CL_H
#define KQ_CL_H

#include <string>

// The line cl_DisplayError shows, without its newline:
//   "SFL-<group>-<reason>: <text> (file <path>)"
// A null or empty path leaves out the file part.
std::string cl_ErrorLine(int group, int reason, const char* path);

// Writes cl_ErrorLine and a newline to standard error in one write.
void cl_DisplayError(int group, int reason, const char* path);

#endif  // KQ_CL_H
