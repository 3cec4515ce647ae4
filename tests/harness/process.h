// Running programs from tests: standard output and standard error captured
// separately, or everything through a pseudo-terminal of a chosen size.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace qfs_test {

struct run_result {
    int exit_status = -1; // exit code, or -1 when killed by a signal
    int pid = -1;         // the child's process id, as its log lines name it
    std::string out;
    std::string err;
};

struct run_options {
    // Environment entries added to (or replacing in) the current environment.
    std::vector<std::string> env;
    // Standard input text (empty: /dev/null).
    std::string input;
};

run_result run_command(const std::vector<std::string> &argv, const run_options &options = {});

// The tool under test with the given arguments (argv[0] is the tool's path).
run_result run_tool(const std::vector<std::string> &args, const run_options &options = {});
std::string tool_path();

struct pty_size {
    unsigned short rows;
    unsigned short columns;
};

struct pty_result {
    int exit_status = -1;
    std::string output; // standard output as the terminal received it
    std::string err;    // standard error, captured through a pipe
};

// Runs the program with standard output on a pseudo-terminal of the given
// size. `on_output` sees the terminal output so far after each read and may
// answer a new window size, which is applied at once (the kernel then sends
// the window-change signal to the program).
pty_result run_in_pty(const std::vector<std::string> &argv, pty_size size,
                      const std::function<std::optional<pty_size>(const std::string &)> &on_output = {});

// Shell-free helper for setup steps; throws with the command's output when it fails.
std::string must_run(const std::vector<std::string> &argv);

// Runs a checker (fsck.exfat -n, sgdisk -v, ...) and expects it to pass; true when it did.
bool expect_clean(const std::vector<std::string> &argv);

// True when a program of that name is on PATH.
bool have_program(const std::string &name);

} // namespace qfs_test
