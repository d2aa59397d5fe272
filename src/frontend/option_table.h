// The options of kestrun: the one table by which they are parsed and merged, and from which the help texts are made
// and, by way of these, the completions of shells.
#ifndef KESTRUN_FRONTEND_OPTION_TABLE_H_
#define KESTRUN_FRONTEND_OPTION_TABLE_H_

#include <initializer_list>
#include <string>
#include <vector>

#include "app/options.h"

namespace kestrun {

// What every option begins with.
inline constexpr char kOptionMark = '-';

struct OptionRule {
  // The readers that the option is meant for. The usage text shows kUser and kNone, --help all shows all.
  enum class Reader {
    kUser,
    kScripts,
    kIntegration,  // programs that start a master
    kNone,         // an option that this version does not have: the word is taken for a tool
  };

  const char* name;
  const char* value;    // the name of the value that is the next word; "" without one
  const char* meaning;  // a line for the help texts
  const char* wanted;   // what the value has to be; "" if any value will do
  Reader reader;
  // Null for kNone. False for a bad value.
  bool (*set)(Options& options, const std::string& value);
  // Puts what the command line gave over what the environment gave.
  void (*merge)(Options& result, const Options& commandLine);

  bool TakesValue() const { return *value != '\0'; }
};

// Null if the text is none of the options that this version has.
const OptionRule* FindRule(const std::string& text);

// Merges field by field. Empty texts, a time limit of 0 and the default marker override nothing.
void MergeByRules(Options& result, const Options& commandLine);

// The options of these readers, in the order of the help texts.
std::vector<const OptionRule*> ListRules(std::initializer_list<OptionRule::Reader> readers);

}  // namespace kestrun

#endif  // KESTRUN_FRONTEND_OPTION_TABLE_H_
