# find_package(KavoASPI CONFIG) reads this: the imported target
# KavoASPI::KavoASPI, with the include directory and the shared library.
include("${CMAKE_CURRENT_LIST_DIR}/KavoASPITargets.cmake")
