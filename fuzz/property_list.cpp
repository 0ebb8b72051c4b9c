// The bundle's Info.plist as the updater reads it: any text gives a dictionary or an Error.

#include "FuzzSupport.h"

#include "platform/Error.h"
#include "updates/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    try {
        readPropertyList(fuzzBytes(data, size), QStringLiteral("Info.plist"));
    } catch (const Error &) {
    }
    return 0;
}
