#include "gui/format_run.h"

#include <unistd.h>

#include <QFileInfo>
#include <QRegularExpression>
#include <QStandardPaths>

namespace {

// The banner that heads every run says nothing about this card.
QString without_banner(const QString &messages) {
    QStringList lines = messages.split('\n');
    lines.removeIf([](const QString &line) {
        return line.startsWith(QStringLiteral("Tarn Card Formatter version ")) ||
               line == QStringLiteral("Developed by Quorvex Inc.");
    });
    return lines.join('\n').trimmed();
}

} // namespace

ToolLaunch tool_launch(const QString &tool, bool root, const QString &pkexec, const QString &action_file) {
    if (root) return {tool, {}, {}};
    ToolLaunch launch{pkexec, {tool}, {}};
    if (pkexec.isEmpty()) {
        launch.problem = QObject::tr("Formatting needs administrator rights, and pkexec is not installed. "
                                     "Install the pkexec package, or start format_tarn_gui as root.");
    } else if (action_file.isEmpty()) {
        launch.problem = QObject::tr("Formatting needs administrator rights, and the polkit action "
                                     "org.tarncard.format-tarn is not installed (%1 is missing). Install "
                                     "format_tarn under /usr, or start format_tarn_gui as root.")
                             .arg(QStringLiteral(QFS_POLKIT_ACTION_FILE));
    }
    return launch;
}

ToolLaunch tool_launch_here(const QString &tool) {
    const QString action = QStringLiteral(QFS_POLKIT_ACTION_FILE);
    return tool_launch(tool, geteuid() == 0, QStandardPaths::findExecutable(QStringLiteral("pkexec")),
                       QFileInfo::exists(action) ? action : QString());
}

QStringList format_arguments(const FormatRequest &request) {
    QStringList arguments{QStringLiteral("--tca-formatter-progress")};
    if (!request.label.isEmpty()) arguments << QStringLiteral("-l") << request.label;
    if (request.overwrite) arguments << QStringLiteral("--overwrite");
    if (request.discard) arguments << QStringLiteral("--discard");
    if (request.check_capacity) arguments << QStringLiteral("--check-capacity");
    return arguments << request.device;
}

void FormatRun::start(const ToolLaunch &launch, const FormatRequest &request) {
    if (!connected_) {
        connect(&process_, &QProcess::readyReadStandardOutput, this, &FormatRun::read_lines);
        connect(&process_, &QProcess::finished, this, &FormatRun::end);
        connect(&process_, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
            if (error == QProcess::FailedToStart) {
                emit finished({false, tr("%1 could not be started: %2").arg(process_.program(), process_.errorString())});
            }
        });
        connected_ = true;
    }
    pending_.clear();
    process_.start(launch.program, launch.prefix + format_arguments(request));
}

// "PROGRESS:<done>/<total> <step>" moves the bar; the tool's other lines repeat
// what its summary says, and lines of later versions are not ours to guess at.
void FormatRun::read_lines() {
    pending_ += process_.readAllStandardOutput();
    qsizetype end = 0;
    while ((end = pending_.indexOf('\n')) >= 0) {
        const QString line = QString::fromUtf8(pending_.left(end));
        pending_.remove(0, end + 1);
        static const QRegularExpression progress_line(QStringLiteral("^PROGRESS:(\\d+)/(\\d+) (.*)$"));
        const QRegularExpressionMatch match = progress_line.match(line);
        const qulonglong total = match.captured(2).toULongLong();
        if (!match.hasMatch() || total == 0) continue;
        emit progress(int(qMin(match.captured(1).toULongLong(), total) * 100 / total), match.captured(3));
    }
}

void FormatRun::end(int status, QProcess::ExitStatus how) {
    read_lines();
    const QString messages = without_banner(QString::fromLocal8Bit(process_.readAllStandardError()));
    if (how == QProcess::CrashExit) {
        emit finished({false, messages + (messages.isEmpty() ? "" : "\n\n") +
                                  tr("format_tarn stopped before it finished. The card is not formatted: "
                                     "format it again.")});
    } else if (status != 0) {
        emit finished({false, messages + (messages.isEmpty() ? "" : "\n\n") +
                                  tr("format_tarn ended with exit status %1.").arg(status)});
    } else {
        emit finished({true, messages});
    }
}
