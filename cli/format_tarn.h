// The command-line tool's main flow.
#pragma once

// Runs the tool; answers the process exit status (0 success, 1 failure).
int format_tarn(int argc, char **argv);
