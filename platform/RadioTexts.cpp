#include "platform/RadioTexts.h"

QString cutTo(const QString &text, qsizetype longest)
{
    if (text.size() <= longest)
        return text;
    const qsizetype end = longest > 0 && text.at(longest - 1).isHighSurrogate() ? longest - 1 : longest;
    return text.left(end);
}
