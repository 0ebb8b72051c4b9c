#pragma once

#include "app/Announcement.h"
#include "config/ConfigDocument.h"
#include "config/Draft.h"
#include "platform/Outcome.h"
#include "platform/Process.h"

#include <QFont>
#include <QJsonObject>
#include <QMap>
#include <QObject>
#include <QString>

#include <memory>
#include <optional>

class QAbstractButton;
class QCheckBox;
class QHBoxLayout;
class QLayout;
class QMenuBar;
class QLabel;
class StatusLabel;
class QLineEdit;
class QListView;
class QMainWindow;
class QPushButton;
class ElidingLabel;
class QFileSystemWatcher;
class QTimer;
class QVBoxLayout;
class ServiceButton;
struct ServiceActionResult;
struct ServiceStatus;
enum class StateTone;
class UnitChanges;

// The one controller: it owns every piece of state of the application, and every user
// action, background result and timer tick ends in one of its member functions. The member
// functions are defined in the folder of the subsystem they belong to.
class AppDelegate : public QObject
{
    Q_OBJECT

public:
    AppDelegate();
    ~AppDelegate() override;

    // Start-up and process (app/StartUp.cpp).
    void applicationDidFinishLaunching();
    bool applicationShouldTerminateAfterLastWindowClosed() const { return true; }
    // Shows the window on top, restored when minimised: at start-up and when a second start asks.
    void bringWindowForward();

    // Configuration document (config/Document.cpp).
    void reload();
    void emptyConfig();
    void newConfig();
    void json(const QJsonObject &document);
    void refreshRadios();
    void replaceEntries();
    void toggleRadio();
    void removeRadio();
    void showFolder();

    // Import of an earlier product's file (config/Import.cpp).
    void importConfig();

    // Saving (config/Save.cpp, config/WriteConfig.cpp).
    void save();
    void writeConfig();
    // Refuses, and says why, when rewriting the draft would change one of its values.
    bool refuseInexactDraft();

    // Discovery (discovery/Discover.cpp). Blocks; background threads only.
    QJsonObject discover(const QString &address) const;
    // Adding a radio by its address (discovery/AddRadio.cpp).
    void addRadio();

    // Background service (service/StatusMonitor.cpp, service/ServiceActions.cpp).
    void refreshService();
    void enableService();
    void stopService();
    void removeService();
    void manageService(const QString &action);
    void offerServiceRefresh();

    // The service's live state (service/LiveStateWatch.cpp).
    void watchLiveState();
    void readLiveState();
    void checkLiveStateOwner();

    // Uninstall (service/Uninstall.cpp).
    void finishUninstall();
    void removeInstalledAppWithAuthorization(const QString &appLocation);
    void finishDataRemoval();

    // Radio table and details panel (app/Details.cpp).
    void tableViewSelectionDidChange();
    void updateDetails();

    // Dialogs (app/Dialog.cpp).
    bool dialog(const QString &title, const QString &detail, const QString &question, bool cancel,
                QLineEdit *input);
    void alert(const QString &message);
    void acceptDialog(QAbstractButton *sender);
    void cancelDialog(QAbstractButton *sender);

    // Control factories (app/MainWindow.cpp).
    QLabel *label(const QString &text, int size, QFont::Weight weight = QFont::Normal, bool secondary = false);
    void styleLabel(QLabel *made, int size, QFont::Weight weight = QFont::Normal, bool secondary = false);
    QHBoxLayout *row();
    QPushButton *button(const QString &title, void (AppDelegate::*action)());

    // Read-only views for the window's observers and for tests.
    QMainWindow *mainWindow() const { return window.get(); }
    const QString &draftText() const;
    const RadioEntries &radioEntries() const { return entries; }
    bool isBusy() const { return busy; }
    QString configPath() const { return configURL; }

private:
    // Start-up pieces (app/MainWindow.cpp).
    QMenuBar *buildMenu();
    void makeWindow(QMenuBar *menu);
    void buildViewTree();
    QLayout *buildSplitRow();
    QLayout *buildServiceRow();
    // A caption and its value, one block of the details panel.
    ElidingLabel *detailValue(QVBoxLayout *stack, const QString &caption, const QString &name);
    // A selectable one-line text of the details panel.
    ElidingLabel *detailLine(const QString &name);

    // The service's live state (service/LiveStateWatch.cpp).
    bool armLiveStateWatch();
    void setLiveState(std::optional<ServiceLiveState> state);
    void findAnnouncements();
    void sendEditCommand(int command);

    // Completions on the main thread (config/Save.cpp, discovery/AddRadio.cpp).
    void finishSave(const Outcome<QByteArray> &result, const QString &snapshot);
    void finishWriteConfig(const Outcome<ProcessResult> &result, const QString &written);
    void finishAddRadio(const QString &address, const QString &snapshot, const Outcome<QJsonObject> &outcome);
    void applyServiceStatus(const ServiceStatus &result);
    void showStateTone(StateTone tone);
    void finishServiceAction(const ServiceActionResult &result);

    // The selected row of the table, or -1 (app/Details.cpp).
    int selectedRow() const;
    void selectRow(int row);

    // Whether config.json is no longer what this app last read or wrote (config/Document.cpp).
    bool configChangedOnDisk() const;

    // Fields that every control needs exist from start-up on; a missing one is a bug.
    Draft &draft() const;
    void setStatus(const QString &text);

    std::unique_ptr<QMainWindow> window;
    std::unique_ptr<Draft> editor;
    StatusLabel *status = nullptr;
    QString configURL;
    // config.json's text as this app last read or wrote it; nothing when it was absent (or unreadable).
    std::optional<QString> configOnDisk;
    ServiceButton *enableButton = nullptr;
    QLabel *serviceState = nullptr;
    QLabel *serviceStartup = nullptr;
    QTimer *serviceTimer = nullptr;
    UnitChanges *unitChanges = nullptr; // systemd's word that a unit changed, between ticks
    bool checkingService = false;
    QListView *table = nullptr;
    ElidingLabel *detailTitle = nullptr;
    QMap<QString, ElidingLabel *> values;
    QCheckBox *enabledButton = nullptr;
    QPushButton *removeButton = nullptr;
    RadioEntries entries;
    ElidingLabel *announcementLine = nullptr;
    QString liveStatePath;
    QFileSystemWatcher *liveStateWatcher = nullptr;
    std::optional<ServiceLiveState> liveState; // nothing while no service runs
    QList<Announcement> announcements;         // one per entry, in the list's order
    bool busy = false;
};
