#include "runtime/files/common_folder.h"

#include <string>

#include "platform/host.h"
#include "runtime/base/environment.h"

namespace kestrun {

Path GetCommonPath() {
  std::string common;
  if (!GetEnvironmentValue("RV_COMMON_PATH", common)) common = platform::DefaultCommonPath();
  return Path(common) / "DORN\\";
}

}  // namespace kestrun
