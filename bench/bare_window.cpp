// The yardstick for start-up: a bare Qt window showing one label, open until it is ended, so
// that first_map times it and follows its memory exactly as it does the app.

#include <QApplication>
#include <QLabel>

int main(int argc, char *argv[])
{
    QApplication application(argc, argv);
    QLabel label(QStringLiteral("Radios"));
    label.resize(960, 620);
    label.show();
    return QApplication::exec();
}
