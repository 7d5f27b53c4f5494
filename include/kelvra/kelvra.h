#ifndef KELVRA_KELVRA_H
#define KELVRA_KELVRA_H

#include <kelvra/SharedPtr.h>
#include <kelvra/UniquePtr.h>
#include <kelvra/threads/CondVar.h>
#include <kelvra/threads/ScopedLock.h>
#include <kelvra/time/Timer.h>
#include <kelvra/utility/Uuid.h>
#include <kelvra/utility/Version.h>

#endif
