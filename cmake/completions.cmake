# Makes the completions of bash, zsh and fish for the programs from what these tell of their options, so that an option
# that is in a help text is completed. At build time for the target "completions":
#   cmake -DKESTRUN=<program> -DDORN=<program> -DOUT=<folder> -P completions.cmake
if(NOT CMAKE_SCRIPT_MODE_FILE)
  # A program for another system can't be asked here, and one with sanitizers is not for installing.
  if(NOT CMAKE_CROSSCOMPILING AND NOT KESTRUN_SANITIZE)
    set(KESTRUN_COMPLETIONS "${CMAKE_BINARY_DIR}/completions")
    set(files)
    foreach(program kestrun dorn)
      list(APPEND files "${KESTRUN_COMPLETIONS}/bash/${program}" "${KESTRUN_COMPLETIONS}/zsh/_${program}"
           "${KESTRUN_COMPLETIONS}/fish/${program}.fish")
    endforeach()
    add_custom_command(
      OUTPUT ${files}
      COMMAND "${CMAKE_COMMAND}" "-DKESTRUN=$<TARGET_FILE:kestrun>" "-DDORN=$<TARGET_FILE:dorn>"
              "-DOUT=${KESTRUN_COMPLETIONS}" -P "${CMAKE_CURRENT_LIST_FILE}"
      DEPENDS kestrun dorn "${CMAKE_CURRENT_LIST_FILE}"
      COMMENT "Making the completions of shells"
      VERBATIM)
    add_custom_target(completions ALL DEPENDS ${files})
  endif()
  return()
endif()

cmake_minimum_required(VERSION 3.22)

# Reads the lines of `help` behind "Options:" up to the first that is not indented. Sets `names`, and for each name N of an option
# meaning_N, and value_N (the name of its value) or words_N (the words that may follow).
macro(read_options)
  set(names)
  set(inside FALSE)
  # The version line holds the path of the program.
  string(FIND "${help}" "\n" end)
  string(SUBSTRING "${help}" ${end} -1 lines)
  # What follows a semicolon is detail.
  string(REGEX REPLACE ";[^\n]*" "" lines "${lines}")
  string(REPLACE "[" "(" lines "${lines}")
  string(REPLACE "]" ")" lines "${lines}")
  string(REPLACE "\n" ";" lines "${lines}")
  foreach(line IN LISTS lines)
    if(line STREQUAL "Options:")
      set(inside TRUE)
    elseif(inside AND line MATCHES "^   (-[^ ]+)( ([^ ]+))? +- (.*)$")
      set(name "${CMAKE_MATCH_1}")
      set(follower "${CMAKE_MATCH_3}")
      set(meaning "${CMAKE_MATCH_4}")
      add_option("${name}" "${meaning}")
      if(follower MATCHES "^[a-z]")
        list(APPEND words_${name} "${follower}")
      elseif(NOT follower STREQUAL "")
        set(value_${name} "${follower}")
      endif()
    elseif(inside AND NOT line MATCHES "^   ")
      set(inside FALSE)
    endif()
    # Options that are told within the text of another one.
    if(inside)
      string(REGEX MATCHALL " --[a-z][-a-z]+" mentioned "${line}")
      foreach(word IN LISTS mentioned)
        string(STRIP "${word}" word)
        list(APPEND others "${word}=${name}")
      endforeach()
    endif()
  endforeach()
  foreach(other IN LISTS others)
    string(REPLACE "=" ";" other "${other}")
    list(GET other 0 word)
    list(GET other 1 name)
    add_option("${word}" "belongs to ${name}")
  endforeach()
endmacro()

macro(add_option name meaning)
  if(NOT "${name}" IN_LIST names)
    list(APPEND names "${name}")
    set(meaning_${name} "${meaning}")
  endif()
endmacro()

function(is_file_name result value)
  if(value MATCHES "^(<script>|FILE|<file>)$")
    set(${result} TRUE PARENT_SCOPE)
  else()
    set(${result} FALSE PARENT_SCOPE)
  endif()
endfunction()

function(write_bash program file)
  set(followed "")
  set(reply "")
  foreach(name IN LISTS names)
    is_file_name(isFile "${value_${name}}")
    if(NOT "${value_${name}}" STREQUAL "")
      string(APPEND followed "|${name}")
    endif()
    if(isFile)
      string(APPEND reply "      ${name}) compopt -o filenames\n        mapfile -t COMPREPLY < <(compgen -f -- \"$cur\") ;;\n")
    elseif(words_${name})
      string(APPEND reply "      ${name}) mapfile -t COMPREPLY < <(compgen -W \"${words_${name}}\" -- \"$cur\") ;;\n")
    endif()
  endforeach()
  string(REGEX REPLACE "^\\|" "" followed "${followed}")
  list(JOIN names " " options)
  file(WRITE "${file}" "# Completion of ${program} for bash: its options, then a command with that command's own arguments. Generated.
_${program}() {
  local cur=\${COMP_WORDS[COMP_CWORD]} prev=\${COMP_WORDS[COMP_CWORD - 1]} at=1
  COMPREPLY=()
  while ((at < COMP_CWORD)) && [[ \${COMP_WORDS[at]} == -?* ]]; do
    case \${COMP_WORDS[at]} in
      --) ((at += 1)); break ;;
      ${followed}) ((at += 2)) ;;
      *) ((at += 1)) ;;
    esac
  done
  if ((at < COMP_CWORD)); then
    if declare -F _comp_command_offset >/dev/null; then
      _comp_command_offset \"$at\"
    elif declare -F _command_offset >/dev/null; then
      _command_offset \"$at\"
    else
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- \"$cur\")
    fi
  elif ((at > COMP_CWORD)) || [[ \$prev == -?* && \$prev != -- && \$cur != -* ]]; then
    case \$prev in
${reply}      ${followed}) ;;
      *) mapfile -t COMPREPLY < <(compgen -c -- \"$cur\") ;;
    esac
  elif [[ \$cur == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W \"${options}\" -- \"$cur\")
  else
    mapfile -t COMPREPLY < <(compgen -c -- \"$cur\")
  fi
}
complete -F _${program} ${program}
")
endfunction()

function(write_zsh program file)
  set(specs "")
  foreach(name IN LISTS names)
    set(meaning "${meaning_${name}}")
    string(REPLACE "'" "'\\''" meaning "${meaning}")
    string(REPLACE ":" "\\:" meaning "${meaning}")
    string(REGEX REPLACE "[<>]" "" value "${value_${name}}")
    is_file_name(isFile "${value_${name}}")
    set(action "")
    if(isFile)
      set(action ":${value}:_files")
    elseif(NOT value STREQUAL "")
      set(action ":${value}: ")
    elseif(words_${name})
      set(action "::word:(${words_${name}})")
    endif()
    string(APPEND specs "  '${name}[${meaning}]${action}' \\\n")
  endforeach()
  file(WRITE "${file}" "#compdef ${program}
# Completion of ${program} for zsh: its options, then a command with that command's own arguments. Generated.
_arguments -S \\
${specs}  '(-):command: _command_names -e' \\
  '*::arguments: _normal'
")
endfunction()

function(write_fish program file)
  set(specs "")
  set(followed "")
  foreach(name IN LISTS names)
    string(REPLACE "'" "\\'" meaning "${meaning_${name}}")
    if(name MATCHES "^--(.*)$")
      set(option "-l ${CMAKE_MATCH_1}")
    elseif(name MATCHES "^-(.)$")
      set(option "-s ${CMAKE_MATCH_1}")
    else()
      string(SUBSTRING "${name}" 1 -1 option)
      set(option "-o ${option}")
    endif()
    is_file_name(isFile "${value_${name}}")
    if(isFile)
      string(APPEND option " -r -F")
    elseif(NOT "${value_${name}}" STREQUAL "")
      string(APPEND option " -x")
    endif()
    if(NOT "${value_${name}}" STREQUAL "")
      string(APPEND followed " ${name}")
    endif()
    string(APPEND specs "complete -c ${program} -n __${program}_in_options ${option} -d '${meaning}'\n")
    foreach(word IN LISTS words_${name})
      string(APPEND specs "complete -c ${program} -f -n 'test (commandline -opc)[-1] = ${name}' -a ${word}\n")
    endforeach()
  endforeach()
  file(WRITE "${file}" "# Completion of ${program} for fish: its options, then a command with that command's own arguments. Generated.

# The words from the first on that is no option and no option's value; false if there are none yet.
function __${program}_command
    set -l words (commandline -opc) (commandline -ct)
    set -e words[1]
    while set -q words[1]; and string match -q -- '-?*' $words[1]
        if test \"$words[1]\" = --
            set -e words[1]
            break
        end
        contains -- \"$words[1]\"${followed}; and set -e words[1]
        set -e words[1]
    end
    set -q words[1]; or return 1
    string join0 -- $words
    # What join gives tells whether there was more than one word.
    return 0
end

function __${program}_in_options
    not __${program}_command >/dev/null; or test (count (__${program}_command | string split0)) -eq 1
end

function __${program}_complete_command
    set -l words (__${program}_command | string split0)
    set -l last $words[-1]
    set -e words[-1]
    complete -C (string join ' ' -- (string escape -- $words) $last)
end

complete -c ${program} -f
complete -c ${program} -x -n '__${program}_command >/dev/null' -a '(__${program}_complete_command)'
${specs}")
endfunction()

# The texts are to be those of the programs, whatever the environment says; no settings are read.
set(ENV{RV_COMMON_PATH} "${OUT}")
unset(ENV{KESTRUN_OPTS})
unset(ENV{KESTRUN_LOG})
foreach(program kestrun dorn)
  string(TOUPPER "${program}" variable)
  set(arguments --help)
  if(program STREQUAL "kestrun")
    # The short text also tells options that there are not.
    list(APPEND arguments all)
  endif()
  execute_process(COMMAND "${${variable}}" ${arguments} OUTPUT_VARIABLE help COMMAND_ERROR_IS_FATAL ANY)
  set(others)
  read_options()
  if(NOT names)
    message(FATAL_ERROR "The help text of ${program} tells no options")
  endif()
  write_bash(${program} "${OUT}/bash/${program}")
  write_zsh(${program} "${OUT}/zsh/_${program}")
  write_fish(${program} "${OUT}/fish/${program}.fish")
endforeach()
