# Every subsystem under src/ compiles into its own object library, so a test
# suite links exactly the subsystems it exercises, and a half-written file in
# one subsystem never stops another subsystem's suite from building.

function(kerrow_apply_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror)
  target_include_directories(${target} PRIVATE ${CMAKE_SOURCE_DIR}/src)
  if(KERROW_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${KERROW_SANITIZE} -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=${KERROW_SANITIZE})
    if(KERROW_SANITIZE MATCHES "undefined")
      # UBSan only prints and carries on by default; a finding must end the
      # process so that the test (and CI) that hit it fails.
      target_compile_options(${target} PRIVATE -fno-sanitize-recover=all)
      target_link_options(${target} PRIVATE -fno-sanitize-recover=all)
    endif()
  endif()
endfunction()

include(${CMAKE_CURRENT_LIST_DIR}/KerrowLayers.cmake)

# One object library per layer of src/. Its dependencies are the layers below
# it in KERROW_LAYERS, recorded on the target so that anything linking it gets
# them too.
function(kerrow_subsystem name)
  kerrow_layers_below(${name} depends)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/src/${name}/*.cc)
  # Each executable's main lives beside its subsystem but outside its library.
  list(FILTER sources EXCLUDE REGEX "/(kerrow_diarize_)?main\\.cc$")
  if(sources)
    add_library(kerrow_${name} OBJECT ${sources})
    kerrow_apply_warnings(kerrow_${name})
    target_compile_definitions(kerrow_${name} PRIVATE KERROW_VERSION="0.1.0")
    set_target_properties(kerrow_${name} PROPERTIES KERROW_DEPENDS "${depends}")
  endif()
endfunction()

# Adds the objects of the named subsystems and of every layer they depend on
# to target, plus the libraries they need.
function(kerrow_link_subsystems target)
  set(names "")
  foreach(name ${ARGN})
    kerrow_layers_below(${name} depends)
    list(APPEND names ${depends} ${name})
  endforeach()
  list(REMOVE_DUPLICATES names)
  foreach(name ${names})
    if(TARGET kerrow_${name})
      target_sources(${target} PRIVATE $<TARGET_OBJECTS:kerrow_${name}>)
    endif()
  endforeach()
  target_link_libraries(${target} PRIVATE sherpa_onnx_c_api Threads::Threads)
endfunction()

# kerrow_test_suite(NAME DEPS subsystem... [EXTRA_SOURCES file...] [NEEDS_BINARY] [LABELS label...])
# Builds every *_test.cc of the calling folder into NAME_tests and registers each
# test with CTest, labelled NAME and any LABELS (`ctest -L` picks suites by label).
# EXTRA_SOURCES compiles single src/ files in without linking their whole
# subsystem. NEEDS_BINARY makes the suite wait for the kerrow executable.
function(kerrow_test_suite name)
  cmake_parse_arguments(ARG "NEEDS_BINARY" "" "DEPS;EXTRA_SOURCES;LABELS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*_test.cc)
  add_executable(${name}_tests ${sources} ${ARG_EXTRA_SOURCES})
  kerrow_apply_warnings(${name}_tests)
  kerrow_link_subsystems(${name}_tests ${ARG_DEPS})
  target_include_directories(${name}_tests PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  if(KERROW_SANITIZE)
    # Under the sanitizers GCC warns of "maybe uninitialized" values inside
    # libstdc++'s std::regex, which the tests use to match output; they are not.
    target_compile_options(${name}_tests PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  endif()
  target_link_libraries(${name}_tests PRIVATE GTest::gtest_main GTest::gmock)
  if(TARGET kerrow_test_support)
    target_link_libraries(${name}_tests PRIVATE kerrow_test_support)
  endif()
  target_compile_definitions(${name}_tests PRIVATE
    KERROW_SOURCE_DIR="${CMAKE_SOURCE_DIR}"
    KERROW_MODELS_DIR="${KERROW_MODELS_DIR}"
    KERROW_TEST_DATA_DIR="${KERROW_TEST_DATA_DIR}"
    KERROW_VAD_MODEL="${KERROW_VAD_MODEL}"
    KERROW_BINARY="$<TARGET_FILE:kerrow>")
  if(ARG_NEEDS_BINARY)
    add_dependencies(${name}_tests kerrow)
  endif()
  gtest_discover_tests(${name}_tests
    DISCOVERY_TIMEOUT 60
    TEST_LIST ${name}_discovered_tests
    PROPERTIES LABELS ${name} TIMEOUT 600)
  if(ARG_LABELS)
    # The discovery script cannot pass a list of labels through, so a second
    # script, read after it, labels the tests it found.
    set(labels_script ${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake)
    file(WRITE ${labels_script}
      "if(${name}_discovered_tests)\n"
      "  set_tests_properties(\${${name}_discovered_tests} PROPERTIES LABELS \"${name};${ARG_LABELS}\")\n"
      "endif()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${labels_script})
  endif()
endfunction()
