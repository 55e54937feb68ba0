# make install: the two tools, their manual pages, and the README, the example
# lists and the example machines under the documentation folder. PREFIX and DESTDIR come from the Makefile.
include(GNUInstallDirs)

install(TARGETS gpuvet gpuvet-lists RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(GPUVET_MANUALS)
  install(FILES ${GPUVET_MANUALS_DIR}/gpuvet.1 ${GPUVET_MANUALS_DIR}/gpuvet-lists.1
          DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()
install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
