#pragma once

#include <QString>

// Holds the draft: the whole configuration document as text, exactly as given. It is never
// displayed, so a plain buffer serves; a text widget would rewrite line breaks and spaces.
class Draft
{
public:
    const QString &text() const { return m_text; }
    void setText(const QString &text) { m_text = text; }

private:
    QString m_text;
};
