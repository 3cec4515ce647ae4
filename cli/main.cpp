#include "cli/format_tarn.h"
#include "cli/standard_streams.h"
#include "support/qfs_logging.h"
#include "support/qfs_support.h"

int main(int argc, char **argv) {
    // Before anything opens a file: a closed standard descriptor would be
    // handed to the card, and messages meant for a terminal would land on it.
    if (format_prepare_standard_streams() != QFS_OK) {
        return 1;
    }
    // The kernel-log copy names the program by its base name.
    if (argc > 0 && argv[0] != nullptr) {
        qfs_log_set_program_name(qfs_basename(argv[0]));
    }
    return format_tarn(argc, argv);
}
