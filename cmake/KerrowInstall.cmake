# What `cmake --install` lays out, for a host to ship as one folder:
#   bin/    kerrow and its tools
#   lib/    the sherpa-onnx C API and onnxruntime libraries the binaries load
#   share/kerrow/silero-vad/   the VAD weights the live modes need
#   share/kerrow/models/       the bundled trained models
# The executables find lib/ through a run path relative to themselves (set in
# KerrowDeps.cmake), so the tree keeps working wherever it is moved.

install(TARGETS kerrow RUNTIME DESTINATION bin)
# The tools ride along when they were built; a build of selected targets (the
# sanitizer runs build only what they test) still installs the engine.
foreach(tool kerrow-replay kerrow-diarize)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION bin OPTIONAL)
  endif()
endforeach()

# Only the two libraries the C API needs: the npm package also carries a Node
# addon and a C++ wrapper that nothing here loads. A versioned onnxruntime file
# name (the macOS packages use one) is matched by the pattern too.
file(GLOB kerrow_runtime_libraries
  ${KERROW_SHERPA_DIR}/libsherpa-onnx-c-api.so
  ${KERROW_SHERPA_DIR}/libsherpa-onnx-c-api.dylib
  ${KERROW_SHERPA_DIR}/libonnxruntime*.so*
  ${KERROW_SHERPA_DIR}/libonnxruntime*.dylib)
if(NOT kerrow_runtime_libraries)
  message(FATAL_ERROR "No sherpa-onnx runtime libraries under ${KERROW_SHERPA_DIR}")
endif()
install(PROGRAMS ${kerrow_runtime_libraries} DESTINATION lib)

install(FILES ${KERROW_VAD_MODEL} ${KERROW_DEPS_DIR}/silero-vad/LICENSE
  DESTINATION share/kerrow/silero-vad)
install(DIRECTORY ${KERROW_MODELS_DIR}/trained DESTINATION share/kerrow/models)
