// One run of format_tarn for the window: how it is started (directly as
// root, else through pkexec), its command line, and what it prints read back
// as progress and a final outcome.
#pragma once

#include <QObject>
#include <QProcess>

struct ToolLaunch {
    QString program;    // what is started: the tool itself, or pkexec
    QStringList prefix; // arguments before the tool's own (the tool's path for pkexec)
    QString problem;    // why formatting cannot be started from here; empty when it can
};

// root: whether this process runs as root; pkexec: its path, empty when not installed;
// action_file: the polkit action that lets pkexec run the tool, empty when not installed.
ToolLaunch tool_launch(const QString &tool, bool root, const QString &pkexec, const QString &action_file);
// The same for this process and this system.
ToolLaunch tool_launch_here(const QString &tool);

struct FormatRequest {
    QString device;
    QString label; // empty: no label
    bool overwrite = false;
    bool discard = false;
    bool check_capacity = false;
};

QStringList format_arguments(const FormatRequest &request);

struct FormatOutcome {
    bool succeeded = false;
    QString text; // the tool's summary, or its messages with the exit status
};

class FormatRun : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;
    void start(const ToolLaunch &launch, const FormatRequest &request);
    bool running() const { return process_.state() != QProcess::NotRunning; }

signals:
    void progress(int percent, const QString &step);
    void finished(const FormatOutcome &outcome);

private:
    void read_lines();
    void end(int status, QProcess::ExitStatus how);
    QProcess process_;
    QByteArray pending_; // the start of a line not yet ended
    bool connected_ = false;
};
