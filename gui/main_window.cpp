#include "gui/main_window.h"

#include <QCheckBox>
#include <QCloseEvent>
#include <QFontDatabase>
#include <QFormLayout>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>

#include "gui/label_rules.h"

namespace {

// Every control gets a name for screen readers and for the tests that find it.
template <typename W> W *named(W *widget, const char *object_name, const QString &accessible_name) {
    widget->setObjectName(QLatin1String(object_name));
    widget->setAccessibleName(accessible_name);
    return widget;
}

} // namespace

MainWindow::MainWindow(const QString &tool, const ToolLaunch &launch, QWidget *parent)
    : QMainWindow(parent), launch_(launch), cards_(tool) {
    setWindowTitle(tr("Tarn Card Formatter"));
    setWindowIcon(QIcon::fromTheme(QStringLiteral("format_tarn_gui")));
    auto *central = new QWidget(this);
    auto *layout = new QVBoxLayout(central);
    notice_ = named(new QLabel(launch.problem), "notice", tr("Notice"));
    notice_->setWordWrap(true);
    notice_->setVisible(!launch.problem.isEmpty());
    layout->addWidget(notice_);
    layout->addWidget(build_card_box());
    layout->addWidget(build_options_box());
    layout->addWidget(build_run_box(), 1);
    setCentralWidget(central);
    resize(720, 560); // within an 800x600 screen, title bar and panel included

    connect(&cards_, &CardListModel::modelReset, this, [this] {
        const int row = cards_.row_of(chosen_path_);
        card_view_->setCurrentIndex(cards_.index(row < 0 ? 0 : row));
        card_changed();
    });
    connect(&cards_, &CardListModel::listed, this, [this](const QString &problem) {
        const QString text = problem.isEmpty() ? launch_.problem : tr("The cards cannot be listed: %1").arg(problem);
        notice_->setText(text);
        notice_->setVisible(!text.isEmpty());
    });
    connect(&run_, &FormatRun::progress, this, [this](int percent, const QString &step) {
        progress_->setValue(percent);
        step_->setText(step);
    });
    connect(&run_, &FormatRun::finished, this, &MainWindow::show_outcome);
    card_changed();
}

QWidget *MainWindow::build_card_box() {
    auto *box = new QGroupBox(tr("Card"));
    auto *layout = new QVBoxLayout(box);
    auto *caption = new QLabel(tr("&Cards and card readers (the list follows what is plugged in):"));
    card_view_ = named(new QListView, "cards", tr("Cards"));
    card_view_->setModel(&cards_);
    card_view_->setMinimumHeight(60);
    card_view_->setMaximumHeight(110); // room for a few readers; the rest of the height goes to the outcome
    caption->setBuddy(card_view_);
    becomes_ = named(new QLabel, "becomes", tr("What the card will become"));
    becomes_->setWordWrap(true);
    becomes_->setTextInteractionFlags(Qt::TextSelectableByKeyboard | Qt::TextSelectableByMouse);
    layout->addWidget(caption);
    layout->addWidget(card_view_);
    layout->addWidget(becomes_);
    connect(card_view_->selectionModel(), &QItemSelectionModel::currentChanged, this, [this](const QModelIndex &index) {
        if (const Card *card = cards_.card(index.row())) chosen_path_ = card->path;
        card_changed();
    });
    return box;
}

QWidget *MainWindow::build_options_box() {
    auto *box = new QGroupBox(tr("Options"));
    auto *form = new QFormLayout(box);
    label_ = named(new QLineEdit, "label", tr("Volume label"));
    label_->setPlaceholderText(tr("none"));
    label_rules_ = new LabelValidator(label_);
    label_->setValidator(label_rules_);
    connect(label_, &QLineEdit::textChanged, this, &MainWindow::update_buttons);
    form->addRow(tr("Volume &label:"), label_);
    quick_ = named(new QRadioButton(tr("&Quick format")), "quick", tr("Quick format"));
    overwrite_ = named(new QRadioButton(tr("&Overwrite every byte (slow)")), "overwrite", tr("Overwrite every byte"));
    quick_->setChecked(true);
    auto *method = new QHBoxLayout;
    method->addWidget(quick_);
    method->addWidget(overwrite_);
    method->addStretch();
    form->addRow(tr("Method:"), method);
    discard_ = named(new QCheckBox(tr("&Discard the old contents first")), "discard",
                     tr("Discard the old contents first"));
    discard_->setToolTip(tr("Tells the card that every block is free, which can keep a used card fast."));
    check_capacity_ = named(new QCheckBox(tr("Check the &real capacity (finds fake cards)")), "check_capacity",
                            tr("Check the card's real capacity first"));
    auto *checks = new QHBoxLayout;
    checks->addWidget(discard_);
    checks->addWidget(check_capacity_);
    checks->addStretch();
    form->addRow(tr("Before:"), checks);
    return box;
}

QWidget *MainWindow::build_run_box() {
    auto *box = new QGroupBox(tr("Format"));
    auto *layout = new QVBoxLayout(box);
    auto *row = new QHBoxLayout;
    format_ = named(new QPushButton(tr("&Format…")), "format", tr("Format the card"));
    progress_ = named(new QProgressBar, "progress", tr("Progress"));
    progress_->setRange(0, 100);
    progress_->setValue(0);
    row->addWidget(format_);
    row->addWidget(progress_, 1);
    step_ = named(new QLabel, "step", tr("Current step"));
    result_ = named(new QPlainTextEdit, "result", tr("Result"));
    result_->setReadOnly(true);
    result_->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    result_->setTabStopDistance(4 * result_->fontMetrics().horizontalAdvance(' '));
    layout->addLayout(row);
    layout->addWidget(step_);
    layout->addWidget(result_, 1);
    connect(format_, &QPushButton::clicked, this, &MainWindow::ask_to_format);
    return box;
}

const Card *MainWindow::chosen() const { return cards_.card(cards_.row_of(chosen_path_)); }

void MainWindow::card_changed() {
    const Card *card = chosen();
    label_rules_->set_file_system(card ? card->file_system : QString());
    if (card == nullptr) {
        becomes_->setText(cards_.rowCount() == 0 ? tr("No card reader or card found. Plug one in.") : QString());
    } else {
        becomes_->setText(tr("%1 will become: %2").arg(card->path, card->becomes));
    }
    update_buttons();
}

// The label is checked again here: a card with another file system may have been chosen since it was typed.
void MainWindow::update_buttons() {
    const Card *card = chosen();
    const bool label_ok = card && label_fits(card->file_system, label_->text());
    format_->setEnabled(!run_.running() && launch_.problem.isEmpty() && card && card->formattable() && label_ok);
    const QList<QWidget *> inputs{card_view_, label_, quick_, overwrite_, discard_, check_capacity_};
    for (QWidget *input : inputs) input->setEnabled(!run_.running());
    label_->setToolTip(card && !label_ok ? tr("%1 cannot store this label.").arg(card->file_system) : QString());
}

void MainWindow::ask_to_format() {
    const Card *card = chosen();
    if (card == nullptr || confirmation_ != nullptr) return;
    confirmation_ = named(new QMessageBox(QMessageBox::Warning, tr("Format %1?").arg(card->path),
                                          tr("Format %1?").arg(card->path), QMessageBox::NoButton, this),
                          "confirmation", tr("Confirm formatting"));
    confirmation_->setInformativeText(
        tr("Device: %1\nModel: %2\nSize: %3\n\nEverything on it will be erased: every file and every partition. "
           "It will become %4.")
            .arg(card->path, card->name.isEmpty() ? tr("unknown") : card->name, card->size_text(), card->becomes));
    confirmation_->addButton(tr("&Erase and format"), QMessageBox::AcceptRole)->setObjectName("erase");
    confirmation_->setDefaultButton(confirmation_->addButton(QMessageBox::Cancel));
    confirmation_->setAttribute(Qt::WA_DeleteOnClose);
    connect(confirmation_, &QMessageBox::finished, this, [this, path = card->path] {
        const bool erase = confirmation_->clickedButton() && confirmation_->clickedButton()->objectName() == "erase";
        confirmation_ = nullptr;
        if (erase) start_format(path);
    });
    confirmation_->open();
}

// The card named in the question, even if the list changed while it was open.
void MainWindow::start_format(const QString &path) {
    const Card *card = cards_.card(cards_.row_of(path));
    if (card == nullptr) {
        result_->setPlainText(tr("%1 is gone. Nothing was formatted.").arg(path));
        return;
    }
    result_->clear();
    progress_->setValue(0);
    step_->setText(tr("Starting format_tarn…"));
    run_.start(launch_, {card->path, label_->text(), overwrite_->isChecked(), discard_->isChecked(),
                         check_capacity_->isChecked()});
    update_buttons();
}

void MainWindow::show_outcome(const FormatOutcome &outcome) {
    step_->setText(outcome.succeeded ? tr("Done") : tr("Failed"));
    if (outcome.succeeded) progress_->setValue(100);
    result_->setPlainText(outcome.text);
    update_buttons();
    cards_.refresh();
    if (quit_after_run_) emit may_quit();
}

// Killing the tool half-way would leave a broken card, so a run outlives the window.
void MainWindow::closeEvent(QCloseEvent *event) {
    if (!run_.running()) {
        event->accept();
        emit may_quit();
        return;
    }
    const auto answer = QMessageBox::question(
        this, tr("Format still running"),
        tr("A format is still running. Close the window and let it finish in the background?"),
        QMessageBox::Close | QMessageBox::Cancel, QMessageBox::Cancel);
    if (answer == QMessageBox::Close) {
        quit_after_run_ = true;
        event->accept();
        if (!run_.running()) emit may_quit(); // it ended while the question was open
    } else {
        event->ignore();
    }
}
