// format_tarn_gui: the desktop front end of format_tarn.
#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

#include "gui/main_window.h"

namespace {

// The tool of the same build or install: beside this program in a build
// tree, in ../sbin when installed, else wherever the system has one.
QString find_tool() {
    const QDir here(QCoreApplication::applicationDirPath());
    for (const QString &candidate : {here.filePath("format_tarn"), here.filePath("../sbin/format_tarn")}) {
        if (QFileInfo(candidate).isExecutable()) return QFileInfo(candidate).canonicalFilePath();
    }
    const QString found = QStandardPaths::findExecutable("format_tarn", {"/usr/sbin", "/usr/local/sbin"});
    return found.isEmpty() ? QStandardPaths::findExecutable("format_tarn") : found;
}

} // namespace

int main(int argc, char *argv[]) {
    QApplication app(argc, argv);
    QApplication::setApplicationName("format_tarn_gui");
    QApplication::setApplicationDisplayName(QObject::tr("Tarn Card Formatter"));
    QApplication::setDesktopFileName("format_tarn_gui");
    QCommandLineParser parser;
    parser.setApplicationDescription(QObject::tr("Formats Tarn memory cards with format_tarn."));
    parser.addHelpOption();
    const QCommandLineOption tool_option("tool", QObject::tr("The format_tarn program to run."), "path");
    parser.addOption(tool_option);
    parser.process(app);
    const QString tool = parser.isSet(tool_option) ? QFileInfo(parser.value(tool_option)).absoluteFilePath() : find_tool();

    // A format that is still running when the window closes keeps the program alive until it ends.
    QApplication::setQuitOnLastWindowClosed(false);
    MainWindow window(tool, tool_launch_here(tool));
    QObject::connect(&window, &MainWindow::may_quit, &app, &QApplication::quit);
    window.show();
    return QApplication::exec();
}
