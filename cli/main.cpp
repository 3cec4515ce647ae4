#include "cli/format_tarn.h"
#include "support/qfs_logging.h"
#include "support/qfs_support.h"

int main(int argc, char **argv) {
    // The kernel-log copy names the program by its base name.
    if (argc > 0 && argv[0] != nullptr) {
        qfs_log_set_program_name(qfs_basename(argv[0]));
    }
    return format_tarn(argc, argv);
}
