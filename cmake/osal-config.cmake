# find_package(osal): the targets osal::osal, osal::lcm, osal::kcstatus and osal::tsreg.
include(${CMAKE_CURRENT_LIST_DIR}/osal-targets.cmake)
