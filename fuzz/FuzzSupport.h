#pragma once

#include <QByteArray>
#include <QString>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// What every harness shares: the input as Qt bytes, and a failed property as a crash that
// libFuzzer records with its input.

inline QByteArray fuzzBytes(const std::uint8_t *data, std::size_t size)
{
    return QByteArray(reinterpret_cast<const char *>(data), qsizetype(size));
}

// Stops the run when a property the product promises does not hold. detail says which
// values broke it, so the crash report can be read without replaying the input.
[[noreturn]] inline void propertyBroken(const char *property, const QString &detail = QString())
{
    std::fprintf(stderr, "\nPROPERTY BROKEN: %s\n%s\n", property, detail.toUtf8().constData());
    std::fflush(stderr);
    std::abort();
}

// Checks that fail today on a known, reported defect run only with VELDSPAR_FUZZ_STRICT=1,
// so that the everyday runs stay useful for everything else.
inline bool strictChecks()
{
    static const bool strict = [] {
        const char *value = std::getenv("VELDSPAR_FUZZ_STRICT");
        return value && value[0] == '1';
    }();
    return strict;
}

inline void expect(bool holds, const char *property, const QString &detail = QString())
{
    if (!holds)
        propertyBroken(property, detail);
}

// The same, with the detail worked out only when the property fails: for checks run many times
// an input, where building every detail would cost more than the check.
template <typename Detail>
inline void expectThat(bool holds, const char *property, Detail detail)
{
    if (!holds)
        propertyBroken(property, detail());
}
