# Included after every project() of a cross build (see powerpc-linux-gnu.cmake).

# Built for size, and optimised across units at the link: the daemon's own
# code shrinks from 1.2 MB to 0.4 MB. Its hot paths are system calls and
# copies, which -Os leaves as they are.
if(FERRULE_CROSS_SMALL)
  foreach(lang C CXX)
    foreach(config RELWITHDEBINFO RELEASE)
      string(REPLACE "-O2" "-Os" CMAKE_${lang}_FLAGS_${config} "${CMAKE_${lang}_FLAGS_${config}}")
      string(REPLACE "-O3" "-Os" CMAKE_${lang}_FLAGS_${config} "${CMAKE_${lang}_FLAGS_${config}}")
    endforeach()
  endforeach()
  set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ON)
  set(CMAKE_POLICY_DEFAULT_CMP0069 NEW)  # for subprojects written for older CMake
endif()

if(FERRULE_CROSS_STATIC)
  include("${CMAKE_CURRENT_LIST_DIR}/powerpc-linux-gnu-static.cmake")
endif()
