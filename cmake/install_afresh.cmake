# Usage: cmake -DBUILD=dir -DPREFIX=dir -P install_afresh.cmake
# A file of an earlier installation would hide that it is installed no more.
file(REMOVE_RECURSE "${PREFIX}")
execute_process(
  COMMAND ${CMAKE_COMMAND} --install "${BUILD}" --prefix "${PREFIX}" COMMAND_ERROR_IS_FATAL ANY)
