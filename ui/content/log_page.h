#pragma once

#include <QAbstractListModel>
#include <QStyledItemDelegate>
#include <QWidget>

class QLabel;
class QListView;
class QPushButton;
class QStackedWidget;

namespace tellwyn {

class ServerLogManager;

// The activity log as a list model: one row per line, oldest first. The rows follow the log as
// it changes: appended lines become inserted rows and lines dropped at the cap removed ones, so a
// view never rebuilds the whole list while lines stream in.
class ServerLogModel final : public QAbstractListModel {
    Q_OBJECT
public:
    enum Role { TimeRole = Qt::UserRole + 1, CategoryRole, MessageRole };

    explicit ServerLogModel(ServerLogManager& logManager, QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;

private:
    void follow(qsizetype appended, qsizetype dropped);
    void resynchronise();

    ServerLogManager& m_logManager;
    int m_rows = 0;
};

// Draws one line in three columns: time, category (coloured by its severity) and message.
class ServerLogEntryDelegate final : public QStyledItemDelegate {
    Q_OBJECT
public:
    static constexpr int timeWidth = 78;
    static constexpr int categoryWidth = 88;

    using QStyledItemDelegate::QStyledItemDelegate;

    // Red for exactly "ERROR", orange for exactly "WARN", the secondary colour for any other.
    static QColor categoryColour(const QString& category, const QWidget* widget);

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;
    // A read-only field over the message, so that part of it can be selected and copied.
    QWidget* createEditor(QWidget* parent, const QStyleOptionViewItem& option,
                          const QModelIndex& index) const override;
    void setEditorData(QWidget* editor, const QModelIndex& index) const override;
    void setModelData(QWidget*, QAbstractItemModel*, const QModelIndex&) const override {}
    void updateEditorGeometry(QWidget* editor, const QStyleOptionViewItem& option,
                              const QModelIndex& index) const override;
};

// The log page: the count, "Logging Active", "Copy Log", "Clear" and the live list, which stays
// at the newest line unless the user has scrolled up.
class LogsOnlyView final : public QWidget {
    Q_OBJECT
public:
    explicit LogsOnlyView(ServerLogManager& logManager, QWidget* parent = nullptr);

    QListView* listView() const { return m_list; }
    ServerLogModel* model() const { return m_model; }
    // Whether the list keeps to the newest line as lines arrive.
    bool isPinnedToBottom() const;

private:
    void redrawHeader();
    void scrollToNewestSoon();

    ServerLogManager& m_logManager;
    ServerLogModel* m_model;
    QListView* m_list;
    QLabel* m_count;
    QLabel* m_empty;
    QStackedWidget* m_body;
    QPushButton* m_copyButton;
    QPushButton* m_clearButton;
    bool m_pinned = true;
    bool m_scrollPending = false;
};

} // namespace tellwyn
