#include "harness/process.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <stdexcept>

namespace qfs_test {

namespace {

std::vector<char *> as_argv(const std::vector<std::string> &argv) {
    std::vector<char *> out;
    for (const auto &a : argv) out.push_back(const_cast<char *>(a.c_str()));
    out.push_back(nullptr);
    return out;
}

void apply_env(const std::vector<std::string> &env) {
    for (const auto &entry : env) {
        const auto eq = entry.find('=');
        if (eq == std::string::npos) {
            unsetenv(entry.c_str());
        } else {
            setenv(entry.substr(0, eq).c_str(), entry.substr(eq + 1).c_str(), 1);
        }
    }
}

int wait_status(pid_t pid) {
    int status = 0, r;
    while ((r = waitpid(pid, &status, 0)) < 0 && errno == EINTR) {}
    return r >= 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void close_fd(int &fd) {
    if (fd >= 0) close(fd);
    fd = -1;
}

// Reads `out_fd` and `err_fd` into their strings until both close, meanwhile
// feeding `input` to `in_fd` (closed at once when empty); `after_out` runs
// after each read of standard output. Every descriptor is closed on return.
void pump(int out_fd, int err_fd, std::string *out, std::string *err, int in_fd, const std::string &input,
          const std::function<void()> &after_out = {}) {
    int fds[3] = {out_fd, err_fd, input.empty() ? (close(in_fd), -1) : in_fd};
    std::string *sinks[2] = {out, err};
    size_t input_done = 0;
    char buffer[65536];
    while (fds[0] >= 0 || fds[1] >= 0 || fds[2] >= 0) {
        pollfd p[3];
        for (int i = 0; i < 3; ++i) p[i] = {fds[i], short(i == 2 ? POLLOUT : POLLIN), 0};
        if (poll(p, 3, -1) < 0 && errno != EINTR) break;
        if (p[2].revents) {
            const ssize_t w = write(fds[2], input.data() + input_done, input.size() - input_done);
            if (w <= 0 || (input_done += size_t(w)) == input.size()) close_fd(fds[2]);
        }
        for (int i = 0; i < 2; ++i) {
            if (!p[i].revents) continue;
            const ssize_t got = read(fds[i], buffer, sizeof(buffer));
            // A pty master reports EIO once the child side is closed.
            if (got <= 0) {
                close_fd(fds[i]);
                continue;
            }
            sinks[i]->append(buffer, size_t(got));
            if (i == 0 && after_out) after_out();
        }
    }
    for (int &fd : fds) close_fd(fd);
}

} // namespace

run_result run_command(const std::vector<std::string> &argv, const run_options &options) {
    int out_pipe[2], err_pipe[2], in_pipe[2];
    if (pipe2(out_pipe, O_CLOEXEC) || pipe2(err_pipe, O_CLOEXEC) || pipe2(in_pipe, O_CLOEXEC))
        throw std::runtime_error("pipe");
    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork");
    if (pid == 0) {
        dup2(in_pipe[0], 0);
        dup2(out_pipe[1], 1);
        dup2(err_pipe[1], 2);
        apply_env(options.env);
        auto args = as_argv(argv);
        execvp(args[0], args.data());
        _exit(127);
    }
    close(out_pipe[1]);
    close(err_pipe[1]);
    close(in_pipe[0]);
    run_result result;
    pump(out_pipe[0], err_pipe[0], &result.out, &result.err, in_pipe[1], options.input);
    result.exit_status = wait_status(pid);
    result.pid = static_cast<int>(pid);
    return result;
}

std::string tool_path() { return FORMAT_TARN_BIN; }

run_result run_tool(const std::vector<std::string> &args, const run_options &options) {
    std::vector<std::string> argv{tool_path()};
    argv.insert(argv.end(), args.begin(), args.end());
    return run_command(argv, options);
}

pty_result run_in_pty(const std::vector<std::string> &argv, pty_size size,
                      const std::function<std::optional<pty_size>(const std::string &)> &on_output) {
    int err_pipe[2];
    if (pipe2(err_pipe, O_CLOEXEC)) throw std::runtime_error("pipe");
    winsize ws{size.rows, size.columns, 0, 0};
    int master = -1;
    const pid_t pid = forkpty(&master, nullptr, nullptr, &ws);
    if (pid < 0) throw std::runtime_error("forkpty");
    if (pid == 0) {
        dup2(err_pipe[1], 2);
        dup2(open("/dev/null", O_RDONLY), 0);
        auto args = as_argv(argv);
        execvp(args[0], args.data());
        _exit(127);
    }
    close(err_pipe[1]);
    pty_result result;
    pump(master, err_pipe[0], &result.output, &result.err, -1, "", [&] {
        if (const auto resize = on_output ? on_output(result.output) : std::nullopt) {
            const winsize next{resize->rows, resize->columns, 0, 0};
            ioctl(master, TIOCSWINSZ, &next);
        }
    });
    result.exit_status = wait_status(pid);
    return result;
}

std::string must_run(const std::vector<std::string> &argv) {
    run_result r = run_command(argv);
    if (r.exit_status != 0) {
        std::string command;
        for (const auto &a : argv) command += a + " ";
        throw std::runtime_error("command failed (" + std::to_string(r.exit_status) + "): " + command +
                                 "\n" + r.out + r.err);
    }
    return r.out;
}

bool expect_clean(const std::vector<std::string> &argv) {
    const run_result r = run_command(argv);
    EXPECT_EQ(r.exit_status, 0) << argv[0] << ": " << r.out << r.err;
    return r.exit_status == 0;
}

bool have_program(const std::string &name) {
    return run_command({"sh", "-c", "command -v " + name + " >/dev/null 2>&1"}).exit_status == 0;
}

} // namespace qfs_test
