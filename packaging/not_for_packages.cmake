# Read by cpack in a tree whose install prefix is not /usr.
message(FATAL_ERROR "Debian packages are built from a tree configured for /usr: "
  "cmake --preset package && cmake --build --preset package && cpack --preset package")
