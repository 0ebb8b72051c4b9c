#include "daemon/SerialClaims.h"

std::optional<QString> SerialClaims::claim(const QString &serial, const QString &key, int rank, const QString &label)
{
    const auto found = m_holders.constFind(serial);
    const std::optional<Holder> holder = found == m_holders.constEnd() ? std::nullopt : std::optional<Holder>(*found);
    if (holder && holder->key != key && holder->rank <= rank) {
        if (m_serials.value(key) == serial)
            m_serials.remove(key);
        return holder->label;
    }
    if (m_serials.value(key, serial) != serial)
        release(key);
    // A radio that came later and held the serial until now finds it taken at its next beacon.
    if (holder && holder->key != key)
        m_serials.remove(holder->key);
    m_holders.insert(serial, {key, rank, label});
    m_serials.insert(key, serial);
    return std::nullopt;
}

void SerialClaims::release(const QString &key)
{
    const auto held = m_serials.constFind(key);
    if (held == m_serials.constEnd())
        return;
    const QString serial = *held;
    m_serials.erase(held);
    if (m_holders.value(serial).key == key)
        m_holders.remove(serial);
}
