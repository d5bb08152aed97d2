#include "log_page.h"

#include "content_support.h"
#include "server_log_manager.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QPainter>
#include <QPushButton>
#include <QScrollBar>
#include <QStackedWidget>
#include <QVBoxLayout>

using namespace Qt::StringLiterals;

namespace tellwyn {

ServerLogModel::ServerLogModel(ServerLogManager& logManager, QObject* parent)
    : QAbstractListModel(parent), m_logManager(logManager),
      m_rows(static_cast<int>(logManager.logs().size())) {
    connect(&m_logManager, &ServerLogManager::linesAppended, this, &ServerLogModel::follow);
    // Anything else (clearing) is taken over whole.
    connect(&m_logManager, &ServerLogManager::logsChanged, this, [this] {
        if (m_rows != m_logManager.logs().size()) {
            resynchronise();
        }
    });
}

int ServerLogModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : m_rows;
}

QVariant ServerLogModel::data(const QModelIndex& index, int role) const {
    const QStringList& lines = m_logManager.logs();
    if (!index.isValid() || index.row() >= m_rows || index.row() >= lines.size()) {
        return {};
    }
    const QString& line = lines.at(index.row());
    switch (role) {
    case Qt::DisplayRole:
    case Qt::ToolTipRole:
        return line;
    case Qt::AccessibleTextRole:
        return line;
    case TimeRole:
        return ServerLogManager::parseLogLine(line).time;
    case CategoryRole:
        return ServerLogManager::parseLogLine(line).category;
    case MessageRole:
        return ServerLogManager::parseLogLine(line).message;
    default:
        return {};
    }
}

Qt::ItemFlags ServerLogModel::flags(const QModelIndex& index) const {
    // Editable only in the sense that the message opens in a read-only field for selecting.
    return QAbstractListModel::flags(index) | Qt::ItemIsEditable;
}

void ServerLogModel::follow(qsizetype appended, qsizetype dropped) {
    const qsizetype size = m_logManager.logs().size();
    if (dropped > m_rows || m_rows - dropped + appended != size) {
        resynchronise();
        return;
    }
    if (dropped > 0) {
        beginRemoveRows({}, 0, static_cast<int>(dropped) - 1);
        m_rows -= static_cast<int>(dropped);
        endRemoveRows();
    }
    if (appended > 0) {
        beginInsertRows({}, m_rows, static_cast<int>(size) - 1);
        m_rows = static_cast<int>(size);
        endInsertRows();
    }
}

void ServerLogModel::resynchronise() {
    beginResetModel();
    m_rows = static_cast<int>(m_logManager.logs().size());
    endResetModel();
}

QColor ServerLogEntryDelegate::categoryColour(const QString& category, const QWidget* widget) {
    if (category == u"ERROR"_s) {
        return UiColor::red();
    }
    if (category == u"WARN"_s) {
        return UiColor::orange();
    }
    return widget != nullptr ? UiColor::secondary(widget) : QColor(Qt::gray);
}

void ServerLogEntryDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                                   const QModelIndex& index) const {
    QStyleOptionViewItem background = option;
    initStyleOption(&background, index);
    background.text.clear();
    const QWidget* widget = option.widget;
    QStyle* style = widget != nullptr ? widget->style() : nullptr;
    if (style != nullptr) {
        style->drawControl(QStyle::CE_ItemViewItem, &background, painter, widget);
    }

    const ParsedLogLine parts = ServerLogManager::parseLogLine(index.data(Qt::DisplayRole).toString());
    const QRect area = option.rect.adjusted(4, 0, -4, 0);
    const bool selected = option.state.testFlag(QStyle::State_Selected);
    const QColor secondary = option.palette.color(QPalette::PlaceholderText);
    const QColor text = option.palette.color(selected ? QPalette::HighlightedText : QPalette::Text);
    painter->save();
    painter->setFont(option.font);
    QRect timeRect(area.left(), area.top(), timeWidth, area.height());
    painter->setPen(selected ? text : secondary);
    painter->drawText(timeRect, Qt::AlignLeft | Qt::AlignVCenter,
                      option.fontMetrics.elidedText(parts.time, Qt::ElideRight, timeWidth));

    QFont categoryFont = option.font;
    categoryFont.setPointSizeF(categoryFont.pointSizeF() * 0.85);
    categoryFont.setWeight(QFont::DemiBold);
    painter->setFont(categoryFont);
    painter->setPen(selected ? text : categoryColour(parts.category, widget));
    const QRect categoryRect(timeRect.right() + 1, area.top(), categoryWidth, area.height());
    painter->drawText(categoryRect, Qt::AlignLeft | Qt::AlignVCenter,
                      QFontMetrics(categoryFont).elidedText(parts.category, Qt::ElideRight, categoryWidth));

    painter->setFont(option.font);
    painter->setPen(text);
    const QRect messageRect(categoryRect.right() + 1, area.top(), area.right() - categoryRect.right(),
                            area.height());
    painter->drawText(messageRect, Qt::AlignLeft | Qt::AlignVCenter,
                      option.fontMetrics.elidedText(parts.message, Qt::ElideRight, messageRect.width()));
    painter->restore();
}

QSize ServerLogEntryDelegate::sizeHint(const QStyleOptionViewItem& option, const QModelIndex&) const {
    return {timeWidth + categoryWidth + 200, option.fontMetrics.height() + 6};
}

QWidget* ServerLogEntryDelegate::createEditor(QWidget* parent, const QStyleOptionViewItem&,
                                              const QModelIndex&) const {
    auto* field = new QLineEdit(parent);
    field->setReadOnly(true);
    field->setFrame(false);
    field->setAccessibleName(uiText("Logs"));
    return field;
}

void ServerLogEntryDelegate::setEditorData(QWidget* editor, const QModelIndex& index) const {
    if (auto* field = qobject_cast<QLineEdit*>(editor)) {
        field->setText(index.data(ServerLogModel::MessageRole).toString());
        field->selectAll();
    }
}

void ServerLogEntryDelegate::updateEditorGeometry(QWidget* editor, const QStyleOptionViewItem& option,
                                                  const QModelIndex&) const {
    editor->setGeometry(option.rect.adjusted(4 + timeWidth + categoryWidth, 0, 0, 0));
}

LogsOnlyView::LogsOnlyView(ServerLogManager& logManager, QWidget* parent)
    : QWidget(parent), m_logManager(logManager), m_model(new ServerLogModel(logManager, this)),
      m_list(new QListView(this)), m_count(makeLabel({}, this)),
      m_empty(makeLabel(uiText("No logs yet..."), this)), m_body(new QStackedWidget(this)),
      m_copyButton(new QPushButton(symbolIcon(u"doc.on.doc"_s, this), uiText("Copy Log"), this)),
      m_clearButton(new QPushButton(symbolIcon(u"trash"_s, this), uiText("Clear"), this)) {
    auto* headerRow = new QHBoxLayout;
    headerRow->addWidget(makeLabel(uiText("Logs"), this, 1.3, QFont::Bold));
    m_count->setObjectName(u"logCount"_s);
    setTextColour(m_count, UiColor::secondary(this));
    headerRow->addWidget(m_count);
    headerRow->addStretch(1);
    headerRow->addWidget(new StatusDot(8, UiColor::green(), this));
    headerRow->addWidget(makeLabel(uiText("Logging Active"), this, 0.9));
    headerRow->addSpacing(12);
    m_copyButton->setObjectName(u"copyLog"_s);
    m_clearButton->setObjectName(u"clearLog"_s);
    nameForAccessibility(m_copyButton, uiText("Copy Log"));
    nameForAccessibility(m_clearButton, uiText("Clear"));
    headerRow->addWidget(m_copyButton);
    headerRow->addWidget(m_clearButton);

    m_list->setObjectName(u"logList"_s);
    nameForAccessibility(m_list, uiText("Logs"));
    m_list->setModel(m_model);
    m_list->setItemDelegate(new ServerLogEntryDelegate(m_list));
    m_list->setUniformItemSizes(true);
    m_list->setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    m_list->setSelectionMode(QAbstractItemView::ExtendedSelection);
    m_list->setEditTriggers(QAbstractItemView::DoubleClicked | QAbstractItemView::EditKeyPressed);
    m_list->setAlternatingRowColors(true);

    m_empty->setAlignment(Qt::AlignCenter);
    setTextColour(m_empty, UiColor::secondary(this));
    m_body->addWidget(m_list);
    m_body->addWidget(m_empty);

    auto* column = new QVBoxLayout(this);
    column->addLayout(headerRow);
    column->addWidget(m_body, 1);

    connect(m_copyButton, &QPushButton::clicked, this, [this] { m_logManager.copyLogsToClipboard(); });
    connect(m_clearButton, &QPushButton::clicked, this, [this] { m_logManager.clearLogs(); });

    QScrollBar* bar = m_list->verticalScrollBar();
    // The user's position decides: at the end the list follows new lines, anywhere else it stays.
    connect(bar, &QScrollBar::valueChanged, this, [this, bar](int value) {
        if (!m_scrollPending) {
            m_pinned = value >= bar->maximum();
        }
    });
    connect(m_model, &QAbstractItemModel::rowsInserted, this, [this] {
        if (m_pinned) {
            scrollToNewestSoon();
        }
    });
    connect(m_model, &QAbstractItemModel::rowsRemoved, this,
            [this, bar](const QModelIndex&, int first, int last) {
                // Lines dropped above a reader who scrolled up: keep the lines they read in place.
                if (!m_pinned && first == 0) {
                    bar->setValue(bar->value() - (last - first + 1) * m_list->sizeHintForRow(0));
                }
            });
    connect(m_model, &QAbstractItemModel::modelReset, this, [this] { m_pinned = true; });
    connect(m_model, &QAbstractItemModel::rowsInserted, this, &LogsOnlyView::redrawHeader);
    connect(m_model, &QAbstractItemModel::rowsRemoved, this, &LogsOnlyView::redrawHeader);
    connect(m_model, &QAbstractItemModel::modelReset, this, &LogsOnlyView::redrawHeader);
    redrawHeader();
    scrollToNewestSoon();
}

bool LogsOnlyView::isPinnedToBottom() const {
    return m_pinned;
}

void LogsOnlyView::redrawHeader() {
    const int rows = m_model->rowCount();
    m_count->setText(uiText("%1 entries").arg(rows));
    m_body->setCurrentWidget(rows == 0 ? static_cast<QWidget*>(m_empty) : m_list);
}

void LogsOnlyView::scrollToNewestSoon() {
    // One scroll per turn of the event loop, however many lines arrived in it: scrolling lays the
    // list out, and a burst of lines should cost one layout, not one per line.
    if (m_scrollPending) {
        return;
    }
    m_scrollPending = true;
    QMetaObject::invokeMethod(
        this,
        [this] {
            m_list->scrollToBottom();
            m_scrollPending = false;
            m_pinned = true;
        },
        Qt::QueuedConnection);
}

} // namespace tellwyn
