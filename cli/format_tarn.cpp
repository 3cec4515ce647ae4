#include "cli/format_tarn.h"

int format_tarn(int, char **) { return 1; }
