# On macOS the libraries come from Homebrew. Some of its formulas are
# keg-only (icu4c and sqlite: macOS ships its own, older copies), so nothing
# on the default search paths points at them. brew is asked where each one
# lives, and those prefixes join the search, so a plain `cmake --preset dev`
# finds them with no environment set up. Qt and QtKeychain are asked for too,
# so that brew's Qt is the one found even where another Qt is installed.
find_program(ORVEL_BREW brew HINTS /opt/homebrew/bin /usr/local/bin)

# Where brew keeps FORMULA (its own prefix without one); empty when that is
# not installed.
function(orvel_brew_prefix out)
  execute_process(COMMAND ${ORVEL_BREW} --prefix ${ARGN}
                  OUTPUT_VARIABLE prefix OUTPUT_STRIP_TRAILING_WHITESPACE
                  RESULT_VARIABLE failed ERROR_QUIET)
  # A formula that is not installed still has a prefix; it just is not there.
  if(failed OR NOT IS_DIRECTORY "${prefix}")
    set(prefix "")
  endif()
  set(${out} "${prefix}" PARENT_SCOPE)
endfunction()

# brew takes a while to start: the answer is kept in the cache once every
# formula is there, and asked for again on the next configure until then.
if(ORVEL_BREW AND NOT ORVEL_BREW_PREFIXES)
  set(prefixes "")
  set(complete TRUE)
  foreach(formula IN ITEMS icu4c sqlite qt qtkeychain)
    orvel_brew_prefix(prefix ${formula})
    if(prefix)
      list(APPEND prefixes "${prefix}")
    else()
      set(complete FALSE)
    endif()
  endforeach()
  # The main prefix last, after the formulas' own.
  orvel_brew_prefix(prefix)
  if(prefix)
    list(APPEND prefixes "${prefix}")
  endif()
  message(STATUS "Homebrew prefixes: ${prefixes}")
  if(complete)
    set(ORVEL_BREW_PREFIXES "${prefixes}" CACHE INTERNAL "Homebrew prefixes searched for libraries")
  else()
    set(ORVEL_BREW_PREFIXES "${prefixes}")
  endif()
endif()
list(APPEND CMAKE_PREFIX_PATH ${ORVEL_BREW_PREFIXES})
