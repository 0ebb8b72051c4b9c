#include "platform/FontConfigWarmUp.h"

#include <fontconfig/fontconfig.h>

FontConfigWarmUp::FontConfigWarmUp() : m_thread([] { FcInit(); }) {}

FontConfigWarmUp::~FontConfigWarmUp()
{
    m_thread.join();
}
