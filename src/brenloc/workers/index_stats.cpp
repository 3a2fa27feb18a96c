#include "brenloc/workers/index_stats.h"

namespace brenloc::workers {

void IndexStats::record_completion(const Completion& c) {
  last_info = nlohmann::ordered_json{{"type", c.index_type},
                                     {"duration_seconds", c.duration_seconds},
                                     {"files_processed", c.files_processed},
                                     {"errors", c.errors}};
}

}  // namespace brenloc::workers
