#include "gui/label_rules.h"

namespace {

constexpr qsizetype max_label_length = 11; // code units for exFAT, bytes of code page 437 for FAT

// Characters 0x80 to 0xFF of code page 437, which FAT labels are stored in.
const QString code_page_437_high = QStringLiteral(
    "ÇüéâäàåçêëèïîìÄÅÉæÆôöòûùÿÖÜ¢£¥₧ƒáíóúñÑªº¿⌐¬½¼¡«»░▒▓│┤╡╢╖╕╣║╗╝╜╛┐└┴┬├─┼╞╟╚╔╩╦╠═╬╧╨╤╥╙╘╒╓╫╪┘┌█▄▌▐▀"
    "αßΓπΣσµτΦΘΩδ∞φε∩≡±≥≤⌠⌡÷≈°∙·√ⁿ²■\u00A0");

bool fits_exfat(const QString &label) {
    if (label.size() > max_label_length) return false;
    for (const QChar c : label) {
        if (c.unicode() < 0x20 || QStringLiteral("\"*/:<>?\\|").contains(c)) return false;
    }
    return true;
}

// FAT stores the label upper-cased, so a small letter is fine when its capital is in the code page.
bool fits_fat(const QString &label) {
    if (label.size() > max_label_length || label.startsWith(' ')) return false;
    for (const QChar typed : label) {
        const QChar c = typed.toUpper();
        const bool ascii = c.unicode() >= 0x20 && c.unicode() < 0x7F;
        if (!(ascii || code_page_437_high.contains(c)) || QStringLiteral("\"*+,./:;<=>?[\\]|").contains(c)) {
            return false;
        }
    }
    return true;
}

} // namespace

bool label_fits(const QString &file_system, const QString &label) {
    return file_system.startsWith(QStringLiteral("FAT")) ? fits_fat(label) : fits_exfat(label);
}

QValidator::State LabelValidator::validate(QString &text, int &) const {
    return label_fits(file_system_, text) ? Acceptable : Invalid;
}
