// The window: pick a card, see what it will become, set the label and the
// options, confirm once, follow the run, read the summary or the tool's error.
// It only shows state and sends requests; format_tarn does the work.
#pragma once

#include <QMainWindow>

#include "gui/card_list.h"
#include "gui/format_run.h"

class QCheckBox;
class QLabel;
class QLineEdit;
class QListView;
class QMessageBox;
class QPlainTextEdit;
class QProgressBar;
class QPushButton;
class QRadioButton;
class LabelValidator;

class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    MainWindow(const QString &tool, const ToolLaunch &launch, QWidget *parent = nullptr);

signals:
    void may_quit(); // closed, and no format is left running

protected:
    void closeEvent(QCloseEvent *event) override;

private:
    QWidget *build_card_box();
    QWidget *build_options_box();
    QWidget *build_run_box();
    const Card *chosen() const;
    void card_changed();
    void update_buttons();
    void ask_to_format();
    void start_format(const QString &path);
    void show_outcome(const FormatOutcome &outcome);

    ToolLaunch launch_;
    CardListModel cards_;
    FormatRun run_;
    QString chosen_path_; // kept across list refreshes
    bool quit_after_run_ = false;

    QLabel *notice_ = nullptr;
    QListView *card_view_ = nullptr;
    QLabel *becomes_ = nullptr;
    QLineEdit *label_ = nullptr;
    LabelValidator *label_rules_ = nullptr;
    QRadioButton *quick_ = nullptr;
    QRadioButton *overwrite_ = nullptr;
    QCheckBox *discard_ = nullptr;
    QCheckBox *check_capacity_ = nullptr;
    QPushButton *format_ = nullptr;
    QProgressBar *progress_ = nullptr;
    QLabel *step_ = nullptr;
    QPlainTextEdit *result_ = nullptr;
    QMessageBox *confirmation_ = nullptr;
};
