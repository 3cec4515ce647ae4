#include "gui/card_list.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>

namespace {

constexpr int refresh_ms = 1000;

QString name_of(const QJsonObject &disk) {
    const QString card = disk["card"].toObject()["name"].toString();
    if (!card.isEmpty()) return card;
    const QString maker = (disk["vendor"].toString() + ' ' + disk["model"].toString()).simplified();
    if (!maker.isEmpty()) return maker;
    return disk["backing_file"].toString();
}

} // namespace

QString Card::size_text() const {
    return size_bytes == 0 ? QString() : QLocale().formattedDataSize(qint64(size_bytes), 1);
}

bool card_list_parse(const QByteArray &json, QList<Card> *cards) {
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError || !document["devices"].isArray()) return false;
    QList<Card> found;
    for (const QJsonValue &value : document["devices"].toArray()) {
        const QJsonObject disk = value.toObject();
        if (disk["fixed"].toBool(true)) continue; // never offered, whatever the tool would say
        Card card;
        card.path = disk["path"].toString();
        card.size_bytes = quint64(disk["size_bytes"].toDouble());
        card.name = name_of(disk);
        card.becomes = disk["format"].toString();
        card.file_system = disk["file_system"].toString();
        for (const QJsonValue &mount : disk["mounted"].toArray()) card.mounted << mount["mount_point"].toString();
        found << card;
    }
    *cards = found;
    return true;
}

CardListModel::CardListModel(QString tool, QObject *parent) : QAbstractListModel(parent), tool_(std::move(tool)) {
    connect(&lister_, &QProcess::finished, this, [this](int status, QProcess::ExitStatus how) {
        QList<Card> cards;
        if (how == QProcess::NormalExit && status == 0 && card_list_parse(lister_.readAllStandardOutput(), &cards)) {
            take(cards);
            emit listed({});
        } else {
            const QString why = QString::fromLocal8Bit(lister_.readAllStandardError()).trimmed();
            emit listed(why.isEmpty() ? tr("%1 --list --json failed").arg(tool_) : why);
        }
    });
    connect(&lister_, &QProcess::errorOccurred, this, [this](QProcess::ProcessError e) {
        if (e == QProcess::FailedToStart) emit listed(tr("cannot run %1: %2").arg(tool_, lister_.errorString()));
    });
    connect(&timer_, &QTimer::timeout, this, &CardListModel::refresh);
    timer_.start(refresh_ms);
    refresh();
}

// A listing only reads, so one under way is simply stopped.
CardListModel::~CardListModel() {
    lister_.disconnect();
    lister_.kill();
    lister_.waitForFinished();
}

void CardListModel::refresh() {
    if (lister_.state() != QProcess::NotRunning) return;
    lister_.start(tool_, {"--list", "--json"});
}

// Only a change of the list resets the model, so the selection and the
// keyboard focus stay put while nothing comes or goes.
void CardListModel::take(const QList<Card> &cards) {
    if (cards == cards_) return;
    beginResetModel();
    cards_ = cards;
    endResetModel();
}

int CardListModel::rowCount(const QModelIndex &parent) const { return parent.isValid() ? 0 : int(cards_.size()); }

const Card *CardListModel::card(int row) const { return row >= 0 && row < cards_.size() ? &cards_[row] : nullptr; }

int CardListModel::row_of(const QString &path) const {
    for (int row = 0; row < cards_.size(); ++row) {
        if (cards_[row].path == path) return row;
    }
    return -1;
}

QVariant CardListModel::data(const QModelIndex &index, int role) const {
    const Card *c = card(index.row());
    if (c == nullptr || (role != Qt::DisplayRole && role != Qt::AccessibleTextRole)) return {};
    QStringList parts{c->path};
    if (!c->size_text().isEmpty()) parts << c->size_text();
    if (!c->name.isEmpty()) parts << c->name;
    parts << c->becomes;
    if (!c->mounted.isEmpty()) parts << tr("mounted on %1").arg(c->mounted.join(", "));
    return parts.join(QStringLiteral(" · "));
}
