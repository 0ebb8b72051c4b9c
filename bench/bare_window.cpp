// The yardstick for start-up: a bare Qt window showing one label, open until it is ended, so
// that first_map times it and follows its memory exactly as it does the app.
//   bare_window             the label is given its size and maps before it measures any text
//   bare_window --measured  the label measures its text first, as any window laid out by its
//                           contents must, and so loads its font before it maps

#include <QApplication>
#include <QLabel>

int main(int argc, char *argv[])
{
    QApplication application(argc, argv);
    QLabel label(QStringLiteral("Radios"));
    if (QCoreApplication::arguments().contains(QStringLiteral("--measured")))
        label.setMinimumSize(label.sizeHint());
    label.resize(960, 620);
    label.show();
    return QApplication::exec();
}
