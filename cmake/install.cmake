# What `make install` and the package put where.
install(TARGETS traiklofox EXPORT traiklofox LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/traiklofox DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
