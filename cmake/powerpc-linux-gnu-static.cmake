# Included after every project() of a fully static cross build (see
# powerpc-linux-gnu.cmake): only static archives may be found.
set(CMAKE_FIND_LIBRARY_SUFFIXES .a)
