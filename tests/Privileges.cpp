#include "Privileges.h"

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {
bool capabilities(cap_user_data_t data, bool set)
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    return syscall(set ? SYS_capset : SYS_capget, &header, data) == 0;
}

constexpr unsigned overrideMask = (1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH) | (1u << CAP_FOWNER);
} // namespace

WithoutFilePermissionOverride::WithoutFilePermissionOverride()
{
    __user_cap_data_struct data[2]{};
    if (!capabilities(data, false))
        return;
    m_savedEffective[0] = data[0].effective;
    m_savedEffective[1] = data[1].effective;
    data[0].effective &= ~overrideMask;
    m_active = capabilities(data, true);
}

WithoutFilePermissionOverride::~WithoutFilePermissionOverride()
{
    if (!m_active)
        return;
    __user_cap_data_struct data[2]{};
    if (!capabilities(data, false))
        return;
    data[0].effective = m_savedEffective[0];
    data[1].effective = m_savedEffective[1];
    capabilities(data, true);
}
