// The real window runs the real tool on a loop device: picked with the
// mouse, labelled from the keyboard, confirmed, formatted, then checked by
// fsck.exfat and blkid. Screenshots of the three stages go to
// gui-screenshots/ in the build tree.
#include <unistd.h>

#include <QtTest>
#include <QtWidgets>

#include "gui/main_window.h"
#include "harness/loop_device.h"
#include "harness/process.h"
#include "harness/temp_files.h"

class EndToEndTest : public QObject {
    Q_OBJECT
private slots:
    void formatsALoopDeviceWithALabelThatFsckAccepts() {
        if (geteuid() != 0) QSKIP("formatting a loop device needs root");
        qfs_test::temp_dir dir;
        qfs_test::make_sparse_image(dir.file("card.img"), 40ull << 30); // a TNC card: exFAT
        std::string why_not;
        const auto loop = qfs_test::loop_device::attach(dir.file("card.img"), &why_not);
        if (!loop) QSKIP(("loop devices unavailable: " + why_not).c_str());
        const QString device = QString::fromStdString(loop->path());
        const QDir shots(QStringLiteral(QFS_BINARY_DIR "/gui-screenshots"));
        QVERIFY(shots.mkpath("."));

        MainWindow window(FORMAT_TARN_BIN, tool_launch_here(FORMAT_TARN_BIN));
        window.show();
        window.activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(&window));
        auto *cards = window.findChild<QListView *>("cards");
        QModelIndex row;
        QTRY_VERIFY((row = cards->model()->match(cards->model()->index(0, 0), Qt::DisplayRole, device + " ·", 1,
                                                  Qt::MatchStartsWith).value(0)).isValid());
        QTest::mouseClick(cards->viewport(), Qt::LeftButton, {}, cards->visualRect(row).center());
        window.findChild<QLineEdit *>("label")->setFocus();
        QTest::keyClicks(window.findChild<QLineEdit *>("label"), "Tarn Photos");
        QVERIFY(window.grab().save(shots.filePath("main_window.png")));

        QTest::keyClick(&window, Qt::Key_F, Qt::AltModifier); // the Format button's mnemonic
        QMessageBox *question = nullptr;
        QTRY_VERIFY((question = window.findChild<QMessageBox *>("confirmation")));
        QVERIFY(QTest::qWaitForWindowExposed(question));
        QVERIFY(question->grab().save(shots.filePath("confirmation.png")));
        question->findChild<QPushButton *>("erase")->click();

        QTRY_VERIFY_WITH_TIMEOUT(QStringList({"Done", "Failed"}).contains(window.findChild<QLabel *>("step")->text()),
                                 120000);
        const QString result = window.findChild<QPlainTextEdit *>("result")->toPlainText();
        QCOMPARE(window.findChild<QLabel *>("step")->text(), "Done");
        QVERIFY2(result.contains("TNC formatting of \"" + device + "\" was successfully completed.") &&
                     result.endsWith("\tVolume label: Tarn Photos"),
                 qPrintable(result));
        QVERIFY(window.grab().save(shots.filePath("finished.png")));

        loop->scan_partitions();
        const auto fsck = qfs_test::run_command({"fsck.exfat", "-n", loop->partition(1)});
        QVERIFY2(fsck.exit_status == 0, fsck.out.c_str());
        QCOMPARE(qfs_test::run_command({"blkid", "-p", "-s", "LABEL", "-o", "value", loop->partition(1)}).out,
                 "Tarn Photos\n");
    }
};

QTEST_MAIN(EndToEndTest)
#include "end_to_end_test.moc"
