#include "app/AppDelegate.h"

#include "app/AppIcon.h"
#include "app/ElidingLabel.h"
#include "app/Fonts.h"
#include "app/RadioPresentation.h"
#include "app/RadioTable.h"
#include "app/ServiceButton.h"
#include "app/StatusLabel.h"
#include "updates/EmberlaneUpdates.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMainWindow>
#include <QMenuBar>
#include <QPushButton>
#include <QVBoxLayout>

namespace {
enum EditCommand { Undo, Cut, Copy, Paste, SelectAll };
} // namespace

QLabel *AppDelegate::label(const QString &text, int size, QFont::Weight weight, bool secondary)
{
    auto *made = new QLabel(text);
    styleLabel(made, size, weight, secondary);
    return made;
}

void AppDelegate::styleLabel(QLabel *made, int size, QFont::Weight weight, bool secondary)
{
    made->setTextFormat(Qt::PlainText); // names and addresses come from radios and files, never markup
    made->setFont(systemFont(size, weight));
    // A role, not a copied colour, so that the text follows the desktop's colour scheme.
    if (secondary)
        made->setForegroundRole(QPalette::PlaceholderText);
}

QHBoxLayout *AppDelegate::row()
{
    auto *made = new QHBoxLayout;
    made->setSpacing(8);
    made->setAlignment(Qt::AlignVCenter);
    return made;
}

QPushButton *AppDelegate::button(const QString &title, void (AppDelegate::*action)())
{
    auto *made = new QPushButton(title);
    made->setAutoDefault(false);
    connect(made, &QPushButton::clicked, this, action);
    return made;
}

QMenuBar *AppDelegate::buildMenu()
{
    auto *menuBar = new QMenuBar;

    // An untitled menu is invisible on Linux, so the application menu carries the name.
    QMenu *applicationMenu = menuBar->addMenu(QStringLiteral("Veldspar"));
    QAction *quit = applicationMenu->addAction(QStringLiteral("Quit Veldspar"));
    quit->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
    quit->setMenuRole(QAction::QuitRole);
    connect(quit, &QAction::triggered, qApp, &QCoreApplication::quit, Qt::QueuedConnection);
    EmberlaneUpdates::shared().addMenuItems(applicationMenu);

    QMenu *editMenu = menuBar->addMenu(QStringLiteral("Edit"));
    const struct
    {
        QString title;
        QKeyCombination key;
        EditCommand command;
    } editItems[] = {
        {QStringLiteral("Undo"), Qt::CTRL | Qt::Key_Z, Undo},
        {QStringLiteral("Cut"), Qt::CTRL | Qt::Key_X, Cut},
        {QStringLiteral("Copy"), Qt::CTRL | Qt::Key_C, Copy},
        {QStringLiteral("Paste"), Qt::CTRL | Qt::Key_V, Paste},
        {QStringLiteral("Select All"), Qt::CTRL | Qt::Key_A, SelectAll},
    };
    for (const auto &item : editItems) {
        QAction *action = editMenu->addAction(item.title);
        action->setShortcut(QKeySequence(item.key));
        const EditCommand command = item.command;
        connect(action, &QAction::triggered, this, [this, command] { sendEditCommand(command); });
    }
    return menuBar;
}

// The Edit items have no target of their own: they act on whatever has keyboard focus, a text
// field or a selectable value label of the details panel.
void AppDelegate::sendEditCommand(int command)
{
    QWidget *focus = QApplication::focusWidget();
    if (auto *field = qobject_cast<QLineEdit *>(focus)) {
        switch (command) {
        case Undo: field->undo(); break;
        case Cut: field->cut(); break;
        case Copy: field->copy(); break;
        case Paste: field->paste(); break;
        case SelectAll: field->selectAll(); break;
        }
    } else if (auto *valueLabel = qobject_cast<ElidingLabel *>(focus)) {
        if (command == Copy && valueLabel->hasSelectedText())
            QGuiApplication::clipboard()->setText(valueLabel->copiedText());
        else if (command == SelectAll)
            valueLabel->setSelection(0, int(valueLabel->text().size()));
    }
}

void AppDelegate::makeWindow(QMenuBar *menu)
{
    window = std::make_unique<QMainWindow>();
    window->setWindowTitle(QStringLiteral("Veldspar"));
    // Rendering the icon waits for the first frame; the file is read now, while it is there.
    readAppIcon();
    window->setMenuBar(menu);
    // The sizes are those of the content area; the menu bar comes on top of them.
    auto *content = new QWidget;
    content->setMinimumSize(880, 580);
    window->setCentralWidget(content);
    window->resize(960, 620 + menu->sizeHint().height());
}

void AppDelegate::buildViewTree()
{
    auto *root = new QVBoxLayout(window->centralWidget());
    root->setSpacing(18);
    root->setContentsMargins(24, 24, 24, 20);

    root->addWidget(label(QStringLiteral("Radios"), 26, QFont::Bold), 0, Qt::AlignHCenter);
    root->addWidget(label(QStringLiteral("Make remote FlexRadios discoverable on your local network."), 13,
                          QFont::Normal, true),
                    0, Qt::AlignHCenter);

    QHBoxLayout *toolbar = row();
    toolbar->addWidget(button(QStringLiteral("Add Radio\u2026"), &AppDelegate::addRadio));
    toolbar->addWidget(button(QStringLiteral("Import\u2026"), &AppDelegate::importConfig));
    toolbar->addWidget(button(QStringLiteral("Delete Config"), &AppDelegate::newConfig));
    toolbar->addWidget(button(QStringLiteral("Reload"), &AppDelegate::reload));
    root->addLayout(toolbar);
    root->setAlignment(toolbar, Qt::AlignHCenter);

    auto *split = new QWidget;
    split->setMinimumHeight(320);
    split->setLayout(buildSplitRow());
    root->addWidget(split, 1);

    auto *separator = new QFrame;
    separator->setFrameShape(QFrame::HLine);
    separator->setFrameShadow(QFrame::Sunken);
    root->addWidget(separator);

    auto *service = new QWidget;
    service->setFixedHeight(42);
    service->setLayout(buildServiceRow());
    root->addWidget(service, 0, Qt::AlignHCenter);

    status = new StatusLabel(QStringLiteral("Ready"));
    status->setObjectName(QStringLiteral("status"));
    status->setFont(systemFont(11));
    status->setForegroundRole(QPalette::PlaceholderText);
    status->setAlignment(Qt::AlignHCenter | Qt::AlignVCenter);
    root->addWidget(status);
}

// A selectable line of the details panel that a long value shortens instead of widening.
ElidingLabel *AppDelegate::detailLine(const QString &name)
{
    auto *line = new ElidingLabel(QStringLiteral("\u2014"));
    styleLabel(line, 13);
    line->setObjectName(name);
    line->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    // Selectable labels take focus only by click; Tab must reach them too, so that a value
    // can be selected and copied without a mouse.
    line->setFocusPolicy(Qt::StrongFocus);
    return line;
}

// A caption and its value, one block of the details panel.
ElidingLabel *AppDelegate::detailValue(QVBoxLayout *stack, const QString &caption, const QString &name)
{
    auto *block = new QVBoxLayout;
    block->setSpacing(3);
    QLabel *captionLabel = label(caption, 10, QFont::DemiBold, true);
    block->addWidget(captionLabel);
    ElidingLabel *value = detailLine(name);
    // The caption labels the value for assistive technology; the captions hold no mnemonic,
    // so this adds no shortcut.
    captionLabel->setBuddy(value);
    block->addWidget(value);
    stack->addLayout(block);
    return value;
}

QLayout *AppDelegate::buildSplitRow()
{
    auto *split = new QHBoxLayout;
    split->setContentsMargins(0, 0, 0, 0);
    split->setSpacing(20);

    table = new QListView;
    table->setObjectName(QStringLiteral("table"));
    table->setFixedWidth(390);
    table->setFrameShape(QFrame::StyledPanel);
    table->setVerticalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    table->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    table->setSelectionMode(QAbstractItemView::SingleSelection);
    table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    table->setUniformItemSizes(true);
    table->setModel(new RadioListModel(entries, announcements, table));
    table->setItemDelegate(new RadioCellDelegate(table));
    table->setAccessibleName(QStringLiteral("Radios"));
    table->setAccessibleDescription(
        QStringLiteral("The radios made discoverable on the local network; the selected one is shown beside the list."));
    connect(table->selectionModel(), &QItemSelectionModel::selectionChanged, this,
            &AppDelegate::tableViewSelectionDidChange);
    split->addWidget(table);

    auto *details = new QWidget;
    details->setMinimumWidth(300);
    auto *detailsStack = new QVBoxLayout(details);
    detailsStack->setContentsMargins(0, 0, 0, 0);
    detailsStack->setSpacing(12);
    // Items keep to the left one by one and a stretch at the end keeps them at the top: the
    // stack itself spans the panel, so a line that gives way at its end knows the width it has
    // (a layout with an alignment of its own would size to its hint).

    // A name longer than the panel is wide gives way at its end, like the row's.
    detailTitle = new ElidingLabel(QStringLiteral("Select a radio"));
    styleLabel(detailTitle, 19, QFont::DemiBold);
    detailTitle->setObjectName(QStringLiteral("detailTitle"));
    detailsStack->addWidget(detailTitle);
    for (const DetailField &field : detailFields())
        values.insert(field.key, detailValue(detailsStack, field.caption, QStringLiteral("value:") + field.key));

    enabledButton = new QCheckBox(QStringLiteral("Include in discovery"));
    enabledButton->setObjectName(QStringLiteral("enabledButton"));
    // Every way the box can change reaches the controller through toggled: a click, the Space
    // key, and the accessibility toggle action, which toggles without a click.
    connect(enabledButton, &QCheckBox::toggled, this, &AppDelegate::toggleRadio);
    // What the service is doing with the radio right now, from its state file, beside the box
    // that decides whether it is announced at all. A block of its own would not fit above the
    // separator at the window's smallest size; a long line gives way at its end.
    announcementLine = detailLine(QStringLiteral("announcement"));
    QHBoxLayout *inclusion = row();
    inclusion->setSpacing(12);
    inclusion->addWidget(enabledButton);
    inclusion->addWidget(announcementLine, 1);
    detailsStack->addLayout(inclusion);

    removeButton = button(QStringLiteral("Remove Radio"), &AppDelegate::removeRadio);
    removeButton->setObjectName(QStringLiteral("removeButton"));
    detailsStack->addWidget(removeButton, 0, Qt::AlignLeft);
    detailsStack->addStretch(1);

    split->addWidget(details, 1);
    return split;
}

QLayout *AppDelegate::buildServiceRow()
{
    auto *serviceRow = new QHBoxLayout;
    serviceRow->setContentsMargins(0, 0, 0, 0);
    serviceRow->setSpacing(16);

    auto *inner = new QHBoxLayout;
    inner->setSpacing(12);
    auto *texts = new QVBoxLayout;
    texts->setSpacing(4);
    serviceState = label(QStringLiteral("Checking service\u2026"), 13, QFont::DemiBold);
    serviceStartup = label(QStringLiteral("Checking login startup"), 11, QFont::Normal, true);
    serviceState->setObjectName(QStringLiteral("serviceState"));
    serviceStartup->setObjectName(QStringLiteral("serviceStartup"));
    texts->addWidget(serviceState, 0, Qt::AlignLeft);
    texts->addWidget(serviceStartup, 0, Qt::AlignLeft);
    inner->addLayout(texts);

    enableButton = new ServiceButton(QStringLiteral("Checking\u2026"));
    enableButton->setObjectName(QStringLiteral("enableButton"));
    enableButton->setFixedSize(100, 30);
    enableButton->setEnabled(false);
    // The titles "Enable" and "Enabled" say what the service is, not what pressing does.
    enableButton->setPurpose(QStringLiteral(
        "Starts the background service and sets it to start at login; while it runs, stops it and turns login start off."));
    connect(enableButton, &QPushButton::clicked, this, &AppDelegate::enableService);
    inner->addWidget(enableButton);
    serviceRow->addLayout(inner);

    serviceRow->addWidget(button(QStringLiteral("Uninstall"), &AppDelegate::removeService));
    serviceRow->addWidget(button(QStringLiteral("Show Files"), &AppDelegate::showFolder));
    return serviceRow;
}
