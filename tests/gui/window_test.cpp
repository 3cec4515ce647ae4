// The window and its parts against a stand-in format_tarn that replays
// recorded output (tests/gui/recorded) and exits with the status a test sets.
#include <QtWidgets>
#include <QtTest>
#include <memory>

#include "gui/label_rules.h"
#include "gui/main_window.h"

namespace {

const QString recorded = QStringLiteral(QFS_SOURCE_DIR "/tests/gui/recorded/");
const QString stand_in = QStringLiteral(QFS_SOURCE_DIR "/tests/gui/stand_in_format_tarn.sh");
const QString summary = QStringLiteral("TNC formatting of \"gui-rec.img\" was successfully completed.\n"
                                       "Volume information:\n\tFile system: exFAT\n"
                                       "\tCapacity: 40.0 GiB (42932895744 bytes)\n"
                                       "\tFree space: 40.0 GiB (42915725312 bytes)\n"
                                       "\tCluster size: 128.0 kiB (131072 bytes)\n\tVolume label: Photos");

QByteArray contents(const QString &path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void put(const QString &path, const QByteArray &bytes) {
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(bytes);
}

template <typename W> W *child(QWidget &window, const char *name) { return window.findChild<W *>(name); }

} // namespace

class WindowTest : public QObject {
    Q_OBJECT
    std::unique_ptr<QTemporaryDir> dir_;
    std::unique_ptr<MainWindow> window_;

    QString file(const char *name) const { return dir_->filePath(name); }
    // What the next run prints on standard output (a line DIE kills it there) and standard error, and its exit status.
    void script(const QByteArray &out, const QByteArray &err, int status) {
        put(file("out"), out);
        put(file("err"), err);
        put(file("status"), QByteArray::number(status));
    }
    void open_window() {
        window_ = std::make_unique<MainWindow>(stand_in, ToolLaunch{stand_in, {}, {}});
        window_->show();
        QTRY_COMPARE(child<QListView>(*window_, "cards")->model()->rowCount(), 3);
    }
    // Picks a card by its row, types a label, presses Format and answers the question (`answer`: the button's name).
    void format(int row, const char *label, const char *answer) {
        auto *cards = child<QListView>(*window_, "cards");
        cards->setCurrentIndex(cards->model()->index(row, 0));
        QTest::keyClicks(child<QLineEdit>(*window_, "label"), label);
        QTest::mouseClick(child<QPushButton>(*window_, "format"), Qt::LeftButton);
        QTRY_VERIFY(child<QMessageBox>(*window_, "confirmation"));
        if (answer) child<QMessageBox>(*window_, "confirmation")->findChild<QPushButton *>(answer)->click();
    }
    QString step() { return child<QLabel>(*window_, "step")->text(); }
    QString result() { return child<QPlainTextEdit>(*window_, "result")->toPlainText(); }

private slots:
    void initTestCase() { QLocale::setDefault(QLocale::c()); }
    void init() {
        dir_ = std::make_unique<QTemporaryDir>();
        qputenv("STAND_IN_DIR", dir_->path().toLocal8Bit());
        put(file("list.json"), contents(recorded + "list.json"));
        script(contents(recorded + "run.out"), contents(recorded + "run.err"), 0);
    }
    void cleanup() { window_.reset(); }

    void listsCardTakingDisksAndFollowsThemComingAndGoing() {
        CardListModel model(stand_in);
        QTRY_COMPARE(model.rowCount(), 3); // the fixed disk is never offered
        const QStringList rows = {
            "/dev/mmcblk0 · 59.5 GiB · SD64G · TNC, exFAT, 128 KiB clusters",
            "/dev/sdb · 7.4 GiB · Generic STORAGE DEVICE · TNB, FAT32, 32 KiB clusters · mounted on /media/u/CARD",
            "/dev/sdc · Generic SD/MMC · no card"};
        for (int row = 0; row < 3; ++row) QCOMPARE(model.index(row).data().toString(), rows[row]);
        QVERIFY(!model.card(2)->formattable());
        QByteArray list = contents(recorded + "list.json");
        list.remove(list.indexOf("{\"path\": \"/dev/mmcblk0\""), list.indexOf("{\"path\": \"/dev/sdb\"") - list.indexOf("{\"path\": \"/dev/mmcblk0\""));
        put(file("list.json"), list);
        QTRY_COMPARE_WITH_TIMEOUT(model.rowCount(), 2, 2000);
        QCOMPARE(model.card(0)->path, "/dev/sdb");
    }

    void labelCheck_data() {
        QTest::addColumn<QString>("file_system");
        QTest::addColumn<QString>("label");
        QTest::addColumn<bool>("fits");
        QTest::newRow("exFAT keeps case and Unicode") << "exFAT" << "Ωmega Fotos" << true;
        QTest::newRow("exFAT holds 11 units") << "exFAT" << "Ωmega Fotos2" << false;
        QTest::newRow("exFAT: no colon") << "exFAT" << "a:b" << false;
        QTest::newRow("FAT upper-cases small letters") << "FAT32" << "holiday" << true;
        QTest::newRow("FAT: code page 437 has É") << "FAT12" << "CAFÉ" << true;
        QTest::newRow("FAT: code page 437 lacks Ï") << "FAT32" << "naïve" << false;
        QTest::newRow("FAT: no ideographs") << "FAT32" << "日本" << false;
        QTest::newRow("FAT: leading blank") << "FAT32" << " photos" << false;
    }
    void labelCheck() {
        QFETCH(QString, file_system);
        QFETCH(QString, label);
        QTEST(label_fits(file_system, label), "fits");
    }

    void labelFieldRefusesWhatTheCardsFileSystemCannotStore() {
        open_window();
        child<QListView>(*window_, "cards")->setCurrentIndex(child<QListView>(*window_, "cards")->model()->index(1, 0));
        QTest::keyClicks(child<QLineEdit>(*window_, "label"), "my.card+1");
        QCOMPARE(child<QLineEdit>(*window_, "label")->text(), "mycard1");
    }

    void everyControlHasANameAndTheWindowFits800x600() {
        open_window();
        for (QWidget *widget : window_->findChildren<QWidget *>()) {
            if (widget->focusPolicy() != Qt::NoFocus && widget->isVisible()) {
                QVERIFY2(!widget->accessibleName().isEmpty(), widget->metaObject()->className());
            }
        }
        QVERIFY(window_->width() <= 800 && window_->height() <= 560);
        QVERIFY(window_->minimumSizeHint().width() <= 800 && window_->minimumSizeHint().height() <= 560);
    }

    void formatsOnlyAfterAQuestionNamingTheCard() {
        open_window();
        child<QCheckBox>(*window_, "discard")->setChecked(true);
        child<QCheckBox>(*window_, "check_capacity")->setChecked(true);
        format(0, "Photos", nullptr);
        auto *question = child<QMessageBox>(*window_, "confirmation");
        QCOMPARE(question->text(), "Format /dev/mmcblk0?");
        QCOMPARE(question->informativeText(), "Device: /dev/mmcblk0\nModel: SD64G\nSize: 59.5 GiB\n\nEverything on it will be erased: every "
                                              "file and every partition. It will become TNC, exFAT, 128 KiB clusters.");
        question->button(QMessageBox::Cancel)->click();
        QTRY_VERIFY(!child<QMessageBox>(*window_, "confirmation"));
        QTest::qWait(200);
        QVERIFY(!QFile::exists(file("args")));

        QTest::mouseClick(child<QPushButton>(*window_, "format"), Qt::LeftButton);
        QTRY_VERIFY(child<QMessageBox>(*window_, "confirmation"));
        QTest::mouseClick(child<QMessageBox>(*window_, "confirmation")->findChild<QPushButton *>("erase"), Qt::LeftButton);
        QTRY_COMPARE(step(), "Done");
        QCOMPARE(contents(file("args")), "--tca-formatter-progress\n-l\nPhotos\n--discard\n--check-capacity\n/dev/mmcblk0\n");
        QCOMPARE(result(), summary);
        QCOMPARE(child<QProgressBar>(*window_, "progress")->value(), 100);
    }

    void progressFollowsTheLinesAndIgnoresLinesItDoesNotKnow() {
        script("FSTYPE:exFAT\nPROGRESS:2/100 Overwriting the beginning of the device with zeroed data...\n"
               "FSGUID:0f1e2d3c\nPROGRESS:half\nPROGRESS:40/80 Checking the card's capacity...\n"
               "PROGRESS:100/100 Creating Tarn-compatible partition table...\n",
               contents(recorded + "run.err"), 0);
        FormatRun run;
        QSignalSpy progress(&run, &FormatRun::progress), finished(&run, &FormatRun::finished);
        run.start({stand_in, {}, {}}, {"/dev/sdb", {}, true, false, false});
        QTRY_COMPARE(finished.size(), 1);
        QCOMPARE(progress, (QList<QList<QVariant>>{
                               {2, "Overwriting the beginning of the device with zeroed data..."},
                               {50, "Checking the card's capacity..."},
                               {100, "Creating Tarn-compatible partition table..."}}));
        QCOMPARE(contents(file("args")), "--tca-formatter-progress\n--overwrite\n/dev/sdb\n");
    }

    void failedRunsSayWhatHappenedAndMayBeTriedAgain() {
        script({}, "Tarn Card Formatter version 1.0.3 (build 3023.2.3.15)\nDevelopped by nobody\n"
                   "Error: Invalid characters in volume label.\n", 1);
        open_window();
        format(0, "Photos", "erase");
        QTRY_COMPARE(step(), "Failed");
        QCOMPARE(result(), "Developped by nobody\nError: Invalid characters in volume label.\n\n"
                           "format_tarn ended with exit status 1.");
        // Again, and the tool dies mid-run.
        script("PROGRESS:10/100 Overwriting the beginning of the device with zeroed data...\nDIE\n"
               "PROGRESS:100/100 Creating Tarn-compatible partition table...\n",
               {}, 0);
        format(0, {}, "erase");
        QTRY_COMPARE(result(), "format_tarn stopped before it finished. The card is not formatted: format it again.");
        QCOMPARE(step(), "Failed");
        QCOMPARE(child<QProgressBar>(*window_, "progress")->value(), 10);
    }

    void closingDuringAFormatAsksThenLetsItFinish() {
        script("PROGRESS:10/100 Overwriting the beginning of the device with zeroed data...\nWAIT\n", {}, 0);
        open_window();
        QSignalSpy quit(window_.get(), &MainWindow::may_quit);
        format(0, {}, "erase");
        QTRY_COMPARE(child<QProgressBar>(*window_, "progress")->value(), 10);
        QTimer::singleShot(100, [] {
            if (auto *question = qobject_cast<QMessageBox *>(QApplication::activeModalWidget())) {
                question->button(QMessageBox::Close)->click();
            }
        });
        window_->close();
        QVERIFY(!window_->isVisible());
        QTest::qWait(300);
        QCOMPARE(quit.size(), 0); // the tool still runs
        put(file("go"), {});
        QTRY_COMPARE(quit.size(), 1);
        QCOMPARE(step(), "Done");
    }

    void runsTheToolThroughPkexecUnlessRoot() {
        QCOMPARE(tool_launch("/usr/sbin/format_tarn", true, {}, {}).program, "/usr/sbin/format_tarn");
        const ToolLaunch user = tool_launch("/usr/sbin/format_tarn", false, "/usr/bin/pkexec", "/a.policy");
        QCOMPARE(user.program + ' ' + user.prefix.join(' ') + user.problem, "/usr/bin/pkexec /usr/sbin/format_tarn");
        QVERIFY(tool_launch("/usr/sbin/format_tarn", false, {}, "/a.policy").problem.contains("pkexec is not installed"));
        QVERIFY(tool_launch("/usr/sbin/format_tarn", false, "/usr/bin/pkexec", {}).problem.contains("polkit action"));
    }

};

QTEST_MAIN(WindowTest)
#include "window_test.moc"
