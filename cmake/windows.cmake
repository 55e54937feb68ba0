# The Windows build: gpuvet.exe and, with tests, what its suite under Wine needs.
# The Linux-only dependencies are never looked for here.

# One self-contained executable: the C and C++ runtimes and the threads go in.
add_link_options(-static -static-libgcc -static-libstdc++)

# The plain-header dependencies come from the host through a folder of links:
# the host's /usr/include itself must never be on the cross compiler's path.
set(GPUVET_HOST_HEADERS ${CMAKE_BINARY_DIR}/host-headers)
file(MAKE_DIRECTORY ${GPUVET_HOST_HEADERS})
foreach(folder CL nlohmann)
  if(NOT EXISTS /usr/include/${folder})
    message(FATAL_ERROR "/usr/include/${folder} is missing: run scripts/install-windows-deps.sh")
  endif()
  file(CREATE_LINK /usr/include/${folder} ${GPUVET_HOST_HEADERS}/${folder} SYMBOLIC)
endforeach()

add_library(nlohmann_json INTERFACE)
target_include_directories(nlohmann_json SYSTEM INTERFACE ${GPUVET_HOST_HEADERS})
add_library(nlohmann_json::nlohmann_json ALIAS nlohmann_json)

# OpenCL.dll comes with the GPU driver; its import library is made from the
# list of entry points the executable uses.
set(GPUVET_OPENCL_DEF ${CMAKE_SOURCE_DIR}/src/service/gpuvet/platform/windows/OpenCL.def)
set(GPUVET_OPENCL_IMPLIB ${CMAKE_BINARY_DIR}/libOpenCL.dll.a)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${GPUVET_OPENCL_DEF})
if(NOT EXISTS ${GPUVET_OPENCL_IMPLIB} OR ${GPUVET_OPENCL_DEF} IS_NEWER_THAN ${GPUVET_OPENCL_IMPLIB})
  execute_process(COMMAND ${CMAKE_DLLTOOL} -d ${GPUVET_OPENCL_DEF} -D OpenCL.dll -l ${GPUVET_OPENCL_IMPLIB}
                  RESULT_VARIABLE dlltool_result)
  if(NOT dlltool_result EQUAL 0)
    message(FATAL_ERROR "dlltool could not make the OpenCL import library")
  endif()
endif()
add_library(gpuvet_opencl INTERFACE)
target_include_directories(gpuvet_opencl SYSTEM INTERFACE ${GPUVET_HOST_HEADERS})
target_link_libraries(gpuvet_opencl INTERFACE ${GPUVET_OPENCL_IMPLIB})
add_library(OpenCL::OpenCL ALIAS gpuvet_opencl)

# tinyxml2 from Debian's source package, unpacked by the set-up script.
set(GPUVET_WINDOWS_DEPS ${CMAKE_SOURCE_DIR}/build/windows-deps CACHE PATH "Where the set-up script unpacked tinyxml2")
file(GLOB GPUVET_TINYXML2_DIR LIST_DIRECTORIES true ${GPUVET_WINDOWS_DEPS}/tinyxml2-*)
if(NOT GPUVET_TINYXML2_DIR OR NOT EXISTS ${GPUVET_TINYXML2_DIR}/tinyxml2.cpp)
  message(FATAL_ERROR "no tinyxml2 source under ${GPUVET_WINDOWS_DEPS}: run scripts/install-windows-deps.sh")
endif()
add_library(tinyxml2 STATIC ${GPUVET_TINYXML2_DIR}/tinyxml2.cpp)
target_include_directories(tinyxml2 SYSTEM PUBLIC ${GPUVET_TINYXML2_DIR})
target_compile_options(tinyxml2 PRIVATE -w)
add_library(tinyxml2::tinyxml2 ALIAS tinyxml2)

# simdjson the same way, from its single-source form. A config file that only
# says "found" lets find_package(simdjson) take this target.
file(GLOB GPUVET_SIMDJSON_DIR LIST_DIRECTORIES true ${GPUVET_WINDOWS_DEPS}/simdjson-*)
if(NOT GPUVET_SIMDJSON_DIR OR NOT EXISTS ${GPUVET_SIMDJSON_DIR}/singleheader/simdjson.cpp)
  message(FATAL_ERROR "no simdjson source under ${GPUVET_WINDOWS_DEPS}: run scripts/install-windows-deps.sh")
endif()
add_library(simdjson STATIC ${GPUVET_SIMDJSON_DIR}/singleheader/simdjson.cpp)
target_include_directories(simdjson SYSTEM PUBLIC ${GPUVET_SIMDJSON_DIR}/singleheader)
target_compile_options(simdjson PRIVATE -w)
add_library(simdjson::simdjson ALIAS simdjson)
file(WRITE ${CMAKE_BINARY_DIR}/simdjson-config/simdjson-config.cmake "# simdjson::simdjson is built from source\n")
set(simdjson_DIR ${CMAKE_BINARY_DIR}/simdjson-config CACHE PATH "" FORCE)

find_package(Threads REQUIRED)

add_subdirectory(src)

# The archive a Windows user unpacks: gpuvet-VERSION-win64.zip with one folder
# of that name holding both tools, the README as README.txt and the examples.
set(GPUVET_ZIP_NAME gpuvet-${PROJECT_VERSION}-win64)
set(GPUVET_ZIP ${CMAKE_BINARY_DIR}/${GPUVET_ZIP_NAME}.zip)
set(GPUVET_ZIP_STAGE ${CMAKE_BINARY_DIR}/zip)
# Windows line ends, so that any editor shows the README as it stands.
file(READ ${CMAKE_SOURCE_DIR}/README.md readme)
string(REPLACE "\n" "\r\n" readme "${readme}")
file(WRITE ${CMAKE_BINARY_DIR}/README.txt "${readme}")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/README.md)
file(GLOB_RECURSE examples CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/examples/*)
add_custom_command(OUTPUT ${GPUVET_ZIP}
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${GPUVET_ZIP_STAGE} ${GPUVET_ZIP}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${GPUVET_ZIP_STAGE}/${GPUVET_ZIP_NAME}
  COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_FILE:gpuvet> $<TARGET_FILE:gpuvet-lists> ${CMAKE_BINARY_DIR}/README.txt
          ${GPUVET_ZIP_STAGE}/${GPUVET_ZIP_NAME}
  COMMAND ${CMAKE_COMMAND} -E copy_directory ${CMAKE_SOURCE_DIR}/examples ${GPUVET_ZIP_STAGE}/${GPUVET_ZIP_NAME}/examples
  COMMAND ${CMAKE_COMMAND} -E chdir ${GPUVET_ZIP_STAGE} ${CMAKE_COMMAND} -E tar cf ${GPUVET_ZIP} --format=zip
          ${GPUVET_ZIP_NAME}
  DEPENDS gpuvet gpuvet-lists ${CMAKE_BINARY_DIR}/README.txt ${examples}
  COMMENT "Windows archive ${GPUVET_ZIP_NAME}.zip")
add_custom_target(windows-zip DEPENDS ${GPUVET_ZIP})

if(GPUVET_TESTS)
  enable_testing()
  add_subdirectory(tests/windows)
endif()
