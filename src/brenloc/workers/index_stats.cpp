#include "brenloc/workers/index_stats.h"

namespace brenloc::workers {

const char* pass_type_name(PassType type) { return type == PassType::full ? "full" : "paths"; }

json pass_info(const std::optional<PassRecord>& record) {
  if (!record) return nullptr;
  return json{{"type", pass_type_name(record->index_type)},
                                {"duration_seconds", record->duration_seconds},
                                {"files_processed", record->files_processed},
                                {"errors", record->errors}};
}

}  // namespace brenloc::workers
