// A process-wide recursive lock for the stand-in's shared records (sources may call back from their own threads).
#pragma once

#include <windows.h>

namespace tdsm {

class Lock {
public:
    Lock();
    ~Lock();
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;
};

} // namespace tdsm
