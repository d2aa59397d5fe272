#include "dorn/settings.h"

#include <gtest/gtest.h>

#include "dorn/settings_table.h"

namespace kestrun::dorn {
namespace {

// What programs do without a key, and what first settings say, as the manual has it.
TEST(SettingsTable, HasTheseDefaultsAndRecommendations) {
  std::string table;
  for (const SettingsKey& key : GetSettingsKeys()) {
    table += key.GetFullName() + " " + key.GetTypeName() + ":" + key.standard + " ";
    table += (std::string(key.name) == "MaxConcurrentJobs" ? "processors" : key.recommended) + "\n";
  }
  EXPECT_EQ(table,
            "LocalSettings/MaxConcurrentJobs int:30 processors\n"
            "LocalSettings/MaxStubs int:30 30\n"
            "LocalSettings/IpcTimeout int:10000 \n"
            "LocalSettings/LoggingEnabled bool:false false\n"
            "LocalSettings/DiagnosticFlags int:0 \n"
            "Extensions/TransparentTools bool:false true\n"
            "Extensions/EagerScheduling bool:false true\n"
            "Extensions/CancelOrphanedJobs bool:false true\n"
            "Extensions/EnforceJobTimeout bool:false true\n"
            "Extensions/DiscardOutput bool:false true\n"
            "Extensions/BuildHistory bool:false true\n"
            "Extensions/ReclaimPlaces bool:false true\n");
}

// One setting a case: what its fault says, "" for none.
TEST(Settings, OfTheWrongTypeOrNameOrSizeAreFaults) {
  const struct {
    std::string line;
    std::string cause;
    bool isError;
  } cases[] = {
      {"MaxConcurrentJobs=int:4", "", false},
      {"MaxConcurrentJobs=int:0", "", false},
      {"MaxConcurrentJobs=int:1024", "", false},
      {"MaxConcurrentJobs=int:1025", "not between 0 and 1024", true},
      {"MaxConcurrentJobs=int:-1", "not between", true},
      {"MaxConcurrentJobs=int:99999999999999999999", "not between", true},
      {"MaxConcurrentJobs=4", "has no type in front (int:4), so the default 30 is used", false},
      {"MaxConcurrentJobs=bool:true", "is no \"int:\"", false},
      {"MaxConcurrentJobs=int:", "no whole number", false},
      {"MaxConcurrentJobs=int:4x", "no whole number", false},
      {"MaxConcurrentJobs=int:4\nMaxConcurrentJobs=int:-1", "", false},  // the second does not count
      {"LoggingEnabled=bool:true", "", false},
      {"LoggingEnabled=bool:yes", "counts as false", false},
      {"MaxConcurentJobs=int:4", "no setting MaxConcurentJobs in [LocalSettings]", false},
      {"EagerScheduling=bool:true", "no setting EagerScheduling in [LocalSettings]", false},
  };
  for (const auto& [line, cause, isError] : cases) {
    SettingsFile file;
    file.Parse("[LocalSettings]\n" + line + "\n");
    const std::vector<ValueFault> faults = FindValueFaults(file);
    EXPECT_EQ(faults.size(), cause.empty() ? 0u : 1u) << line;
    if (faults.size() != 1) continue;
    EXPECT_NE(faults[0].fault.cause.find(cause), std::string::npos) << faults[0].fault.cause;
    EXPECT_EQ(faults[0].fault.line, 2u);
    EXPECT_EQ(faults[0].isError, isError) << line;
  }
}

}  // namespace
}  // namespace kestrun::dorn
