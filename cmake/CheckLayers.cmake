# Fails when a file of a subsystem of Dovel/ includes one that may not be under it
# (cmake/Layers.cmake). The subsystem targets already refuse such an include in a
# source they compile; this check covers every header too, including those no source
# of their own subsystem includes. Run by every build: cmake -DSOURCE=<root> -P this file.
cmake_minimum_required(VERSION 3.16)
include(${CMAKE_CURRENT_LIST_DIR}/Layers.cmake)

set(failed FALSE)
foreach(sub ${DOVEL_SUBSYSTEMS})
  file(GLOB sources ${SOURCE}/Dovel/${sub}/*.h ${SOURCE}/Dovel/${sub}/*.cpp)
  foreach(source ${sources})
    file(STRINGS ${source} includes REGEX "^#include \"Dovel/[a-z]+/")
    foreach(line ${includes})
      string(REGEX REPLACE "^#include \"Dovel/([a-z]+)/.*" "\\1" used "${line}")
      if(NOT used STREQUAL sub AND NOT used IN_LIST DOVEL_USES_${sub})
        file(RELATIVE_PATH where ${SOURCE} ${source})
        message("error: ${where}: Dovel/${sub} may not include Dovel/${used}")
        set(failed TRUE)
      endif()
    endforeach()
  endforeach()
endforeach()
if(failed)
  message(FATAL_ERROR "the subsystems of Dovel/ include each other against their order")
endif()
