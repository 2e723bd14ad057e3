# The pinned sherpa-onnx runtime and silero VAD weights come from the npm
# registry; the fetch script checks them against scripts/deps.lock and unpacks
# them into the build tree, so nothing third-party is ever committed.
set(KERROW_DEPS_DIR ${CMAKE_BINARY_DIR}/deps)
execute_process(
  COMMAND bash ${CMAKE_SOURCE_DIR}/scripts/fetch_npm_deps.sh ${KERROW_DEPS_DIR} ${KERROW_SHERPA_PLATFORM}
  RESULT_VARIABLE kerrow_fetch_result)
if(NOT kerrow_fetch_result EQUAL 0)
  message(FATAL_ERROR "Fetching the pinned npm packages failed (see above)")
endif()

set(KERROW_SHERPA_DIR ${KERROW_DEPS_DIR}/sherpa-onnx)
if(KERROW_SHERPA_PLATFORM MATCHES "^darwin")
  set(kerrow_sherpa_lib ${KERROW_SHERPA_DIR}/libsherpa-onnx-c-api.dylib)
else()
  set(kerrow_sherpa_lib ${KERROW_SHERPA_DIR}/libsherpa-onnx-c-api.so)
endif()
add_library(sherpa_onnx_c_api SHARED IMPORTED GLOBAL)
set_target_properties(sherpa_onnx_c_api PROPERTIES IMPORTED_LOCATION ${kerrow_sherpa_lib})
if(NOT KERROW_SHERPA_PLATFORM MATCHES "^darwin")
  set_target_properties(sherpa_onnx_c_api PROPERTIES IMPORTED_NO_SONAME OFF)
endif()

# The build tree runs against the unpacked npm package in place; an installed
# tree carries the two libraries in lib/ beside bin/, so its run path is
# relative to the executable and the tree can be moved or shipped in an app
# bundle. The c-api library finds onnxruntime through its own run path.
if(KERROW_SHERPA_PLATFORM MATCHES "^darwin")
  set(CMAKE_INSTALL_RPATH "@loader_path/../lib")
else()
  set(CMAKE_INSTALL_RPATH "$ORIGIN/../lib")
endif()
set(CMAKE_BUILD_WITH_INSTALL_RPATH OFF)
set(CMAKE_INSTALL_RPATH_USE_LINK_PATH OFF)

set(KERROW_VAD_MODEL ${KERROW_DEPS_DIR}/silero-vad/weights/silero_vad.onnx)
set(KERROW_MODELS_DIR ${CMAKE_SOURCE_DIR}/models)
set(KERROW_TEST_DATA_DIR ${CMAKE_SOURCE_DIR}/tests/data)

find_package(Threads REQUIRED)
