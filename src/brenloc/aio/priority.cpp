#include "brenloc/aio/priority.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>

namespace brenloc::aio {

void lower_thread_priority() {
  thread_local bool lowered = false;
  if (lowered) return;
  lowered = true;
  // On Linux a nice value belongs to the thread named by its id, not to the whole process. Nice 10, not
  // 19: beside a busy process at normal priority the thread still gets about a tenth of a core instead of
  // almost none (at 19 a rebuild on a loaded machine took five times as long). Best effort: a thread left
  // at normal priority is only slower to give way.
  const auto self = static_cast<id_t>(gettid());
  errno = 0;
  const int now = getpriority(PRIO_PROCESS, self);
  if (errno == 0 && now < 10) (void)setpriority(PRIO_PROCESS, self, 10);  // never raised: only lowered
}

}  // namespace brenloc::aio
