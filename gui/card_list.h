// The cards that format_tarn lists (--list --json), as a list model that
// asks the tool again every second, so a card or reader that comes or goes
// shows within about two seconds.
#pragma once

#include <QAbstractListModel>
#include <QList>
#include <QProcess>
#include <QTimer>

struct Card {
    QString path;
    quint64 size_bytes = 0;
    QString name;        // the card's own name, else vendor and model, else the image behind a loop device
    QString becomes;     // the tool's verdict: "TNC, exFAT, 128 KiB clusters", "no card", ...
    QString file_system; // "exFAT", "FAT32", ...; empty when the tool would not format it
    QStringList mounted; // mount points of the card's file systems

    bool formattable() const { return !file_system.isEmpty(); }
    QString size_text() const;
    bool operator==(const Card &) const = default;
};

// The card-taking disks of a `--list --json` document; false when it does not parse.
bool card_list_parse(const QByteArray &json, QList<Card> *cards);

class CardListModel : public QAbstractListModel {
    Q_OBJECT
public:
    CardListModel(QString tool, QObject *parent = nullptr);
    ~CardListModel() override;
    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    const Card *card(int row) const;
    int row_of(const QString &path) const;
    void refresh(); // runs the tool now unless a listing is under way

signals:
    void listed(const QString &problem); // after every listing; empty when it worked

private:
    void take(const QList<Card> &cards);
    QString tool_;
    QList<Card> cards_;
    QProcess lister_;
    QTimer timer_;
};
