// The command-line tool's main flow.
#pragma once

#include "support/qfs_error.h"

// Runs the tool; answers the process exit status (0 success, 1 failure).
int format_tarn(int argc, char **argv);

// The main flow itself, answering the first error it recorded.
qfs_result _qfs_main(int argc, char **argv);
