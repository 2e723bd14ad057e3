# What `cmake --install` lays out, for a host to ship as one folder:
#   bin/    kerrow and its tools
#   lib/    the sherpa-onnx C API and onnxruntime libraries the binaries load
#   share/kerrow/silero-vad/   the VAD weights the live modes need
#   share/kerrow/models/       the bundled trained models
# The executables find lib/ through a run path relative to themselves (set in
# KerrowDeps.cmake), so the tree keeps working wherever it is moved.

set(kerrow_installed_programs kerrow)
# Tools that other parts of the tree may or may not define in this build.
foreach(tool kerrow-replay kerrow-diarize)
  if(TARGET ${tool})
    list(APPEND kerrow_installed_programs ${tool})
  endif()
endforeach()
install(TARGETS ${kerrow_installed_programs} RUNTIME DESTINATION bin)

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
