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
             include/Tessel/Node.h bin/dovel)
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
