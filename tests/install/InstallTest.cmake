# Installs the build in BUILD_DIR into a scratch prefix under SCRATCH, then configures,
# builds and runs the consumer project against that prefix alone, together with the
# example programs in EXAMPLES.
# cmake -DBUILD_DIR=... -DSCRATCH=... -DCONSUMER=... -DEXAMPLES=... -P InstallTest.cmake
file(REMOVE_RECURSE ${SCRATCH})
set(prefix ${SCRATCH}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "failed (${status}): ${ARGN}")
  endif()
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(file lib/libDovel.so lib/cmake/Dovel/DovelConfig.cmake include/Dovel/sync/RemoteNode.h
             include/Dovel/session/SessionServer.h
             include/Tessel/Node.h bin/dovel share/man/man1/dovel.1
             share/bash-completion/completions/dovel share/doc/Dovel/tree-format.md)
  if(NOT EXISTS ${prefix}/${file})
    message(FATAL_ERROR "not installed: ${file}")
  endif()
endforeach()
run(${CMAKE_COMMAND} -S ${CONSUMER} -B ${SCRATCH}/build -G Ninja -DCMAKE_PREFIX_PATH=${prefix}
    -DDOVEL_EXAMPLES=${EXAMPLES})
run(${CMAKE_COMMAND} --build ${SCRATCH}/build)
run(${SCRATCH}/build/consumer)
run(${SCRATCH}/build/share_tree 20) # a server and a client share a tree, both ways
run(${prefix}/bin/dovel --version)

# The man page describes every option the commands' help lists (the bench's internal
# ones aside).
file(READ ${prefix}/share/man/man1/dovel.1 manual)
string(REPLACE "\\-" "-" manual "${manual}")
foreach(command serve dump get ls set watch keygen bench demo "files;serve" "files;pull")
  execute_process(COMMAND ${prefix}/bin/dovel ${command} --help OUTPUT_VARIABLE help
                  RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "dovel ${command} --help failed (${status})")
  endif()
  string(REGEX MATCHALL "--[a-z][a-z-]*" options "${help}")
  list(REMOVE_DUPLICATES options)
  list(REMOVE_ITEM options --peer --index)
  foreach(option ${options})
    string(FIND "${manual}" "${option}" found)
    if(found EQUAL -1)
      message(FATAL_ERROR "dovel.1 does not describe ${option} of '${command}'")
    endif()
  endforeach()
endforeach()
