# SPDX-License-Identifier: Apache-2.0
# Fails if an include points the wrong way, or if a library includes what is neither its own nor of the standard
# libraries:
#
#     jpagent -> pim/speaker -> pim/wire               -> pim/entry -> runtime
#                            -> pim/joinprune -> pim/model -> pim/entry -> runtime
#
# Within runtime: scrivo -> dova -> vel, zanth -> vel.
#
# And what is in a folder named private is not installed, so no header outside of such a folder includes it; what is in
# one named detail is for the libraries' own headers, so no program does.
set(c_library "(arpa|netinet|sys)/[a-z]+[.]h|(cxxabi|fcntl|pthread|unistd)[.]h")
foreach(library runtime pim)
  file(GLOB_RECURSE files ${SOURCE}/${library}/*.h ${SOURCE}/${library}/*.cpp)
  foreach(file ${files})
    file(STRINGS ${file} includes REGEX "^#include <")
    foreach(include ${includes})
      if(NOT include MATCHES "^#include <([a-z_]+|${c_library})>$")
        message(SEND_ERROR "${file}: ${include}")
      endif()
    endforeach()
  endforeach()
endforeach()

function(may_not_include folder)
  file(GLOB_RECURSE files ${SOURCE}/${folder}/*.h ${SOURCE}/${folder}/*.cpp)
  if(NOT files)
    message(FATAL_ERROR "there is nothing in ${folder}")
  endif()
  foreach(file ${files})
    file(STRINGS ${file} includes REGEX "^#include \"")
    foreach(forbidden ${ARGN})
      foreach(include ${includes})
        if(include MATCHES "^#include \"${forbidden}/")
          message(SEND_ERROR "${file}: ${include}")
        endif()
      endforeach()
    endforeach()
  endforeach()
endfunction()

may_not_include(runtime pim jpagent tests examples fuzz)
may_not_include(pim jpagent tests examples fuzz)
may_not_include(pim/entry pim/model pim/joinprune pim/wire pim/speaker)
may_not_include(pim/model pim/joinprune pim/wire pim/speaker)
may_not_include(pim/joinprune pim/wire pim/speaker)
may_not_include(pim/wire pim/model pim/joinprune pim/speaker)
may_not_include(jpagent tests examples fuzz)
may_not_include(jpagent/common jpagent/capture jpagent/live jpagent/replay jpagent/simulate jpagent/trace)
may_not_include(jpagent/capture jpagent/live jpagent/replay jpagent/simulate jpagent/trace)
may_not_include(jpagent/replay jpagent/live jpagent/simulate jpagent/trace)
may_not_include(jpagent/simulate jpagent/live jpagent/replay jpagent/trace)
may_not_include(jpagent/live jpagent/replay jpagent/trace)
may_not_include(jpagent/trace jpagent/capture jpagent/live jpagent/replay jpagent/simulate)
may_not_include(runtime/vel runtime/zanth runtime/scrivo runtime/dova)
may_not_include(runtime/dova runtime/zanth runtime/scrivo)
may_not_include(runtime/zanth runtime/scrivo runtime/dova)
may_not_include(runtime/scrivo runtime/zanth)

file(GLOB_RECURSE headers ${SOURCE}/runtime/*.h ${SOURCE}/pim/*.h)
list(FILTER headers EXCLUDE REGEX "/private/")
foreach(header ${headers})
  file(STRINGS ${header} includes REGEX "^#include \".*/private/")
  foreach(include ${includes})
    message(SEND_ERROR "${header}: ${include}")
  endforeach()
endforeach()
file(GLOB_RECURSE files ${SOURCE}/jpagent/*.h ${SOURCE}/jpagent/*.cpp ${SOURCE}/examples/*.h ${SOURCE}/examples/*.cpp)
foreach(file ${files})
  file(STRINGS ${file} includes REGEX "^#include \".*/detail/")
  foreach(include ${includes})
    message(SEND_ERROR "${file}: ${include}")
  endforeach()
endforeach()
