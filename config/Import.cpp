#include "app/AppDelegate.h"

#include "config/ConfigFile.h"
#include "platform/Error.h"

#include <QFileDialog>
#include <QMainWindow>

void AppDelegate::importConfig()
{
    if (busy)
        return;
    QFileDialog chooser(window.get(), QStringLiteral("Import Tarnwick config.json"));
    chooser.setAcceptMode(QFileDialog::AcceptOpen);
    chooser.setFileMode(QFileDialog::ExistingFile);
    if (chooser.exec() != QDialog::Accepted || chooser.selectedFiles().isEmpty())
        return;

    QJsonObject imported;
    try {
        imported = readConfigurationFile(chooser.selectedFiles().constFirst());
    } catch (const Error &error) {
        alert(QStringLiteral("Cannot read file: ") + error.description());
        return;
    }
    // The whole imported document replaces the draft; the save then identifies its radios.
    json(imported);
    save();
}
