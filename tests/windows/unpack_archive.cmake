# Unpacks the Windows archive as a user would and checks that it holds what a
# user needs: both tools, the README and the example lists.
# cmake -DARCHIVE=FILE.zip -DINTO=DIR -DFOLDER=NAME -P unpack_archive.cmake
file(REMOVE_RECURSE ${INTO})
file(ARCHIVE_EXTRACT INPUT ${ARCHIVE} DESTINATION ${INTO})
foreach(wanted gpuvet.exe gpuvet-lists.exe README.txt examples/blacklist.xml examples/whitelist.xml)
  if(NOT EXISTS ${INTO}/${FOLDER}/${wanted})
    message(FATAL_ERROR "${ARCHIVE} lacks ${FOLDER}/${wanted}")
  endif()
endforeach()
