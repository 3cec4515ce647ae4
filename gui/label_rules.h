// What a volume label may hold on the file system a card will get, so the
// label field refuses a character before the run instead of the tool after it.
#pragma once

#include <QValidator>

// True when `label` can be stored as the label of a new `file_system`
// ("exFAT", or a FAT variant in the tool's default code page 437).
bool label_fits(const QString &file_system, const QString &label);

class LabelValidator : public QValidator {
    Q_OBJECT
public:
    using QValidator::QValidator;
    void set_file_system(const QString &file_system) { file_system_ = file_system; }
    State validate(QString &text, int &position) const override;

private:
    QString file_system_;
};
