// The CUPS backend "quillet": marks every copy of a job, then passes the
// marked stream to the real backend named by the rest of the device URI.
#pragma once

// Exit status of a job that cannot be marked: the print server cancels the
// job and goes on with the next one (CUPS_BACKEND_CANCEL).
inline constexpr int RefusedJobStatus = 5;

// Runs the backend as the print server starts it:
//   quillet                                     lists the device scheme
//   quillet job user title copies options [file] marks and sends one job
// and returns the exit status for the print server: 0 when the marked job
// was sent, RefusedJobStatus when it was refused, the real backend's own
// status when that failed, 1 for a wrong command line.
int backendMain(int argc, char* argv[]);
