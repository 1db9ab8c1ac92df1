#include "base/context.h"

#include "base/profile.h"

EX_PCX* GlbPcx = nullptr;

EX_PCX::EX_PCX()
    : getProfileString(m_getProfileString),
      getProfileBool(m_getProfileBool),
      getProfileInt(m_getProfileInt),
      putProfileString(m_putProfileString) {
    for (std::atomic<char>& level : trcFlgs) {
        level.store('0', std::memory_order_relaxed);
    }
    pcx_main_threadID = pthread_self();
}

EX_PCX* GetGlbPcx() {
    return GlbPcx;
}

// A forked child has one thread, and its pthread_self is that of the thread that forked: the main one.
bool on_main_thread() {
    return GlbPcx == nullptr || pthread_equal(pthread_self(), GlbPcx->pcx_main_threadID) != 0;
}
