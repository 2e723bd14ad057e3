# The layers of src/, from the bottom up. This list is the dependency graph:
# a folder may include its own headers and those of the folders before it,
# never one after it. The object libraries link by it and the include check
# (cmake/CheckIncludeLayers.cmake) enforces it, so both read this one list.
# diarization, speaker, offline and live are siblings in purpose; their order
# here is the one their includes need: speaker labels diarized turns, the
# whole-recording decode uses both, and the live session runs that decode.
set(KERROW_LAYERS common events audio engine text diarization speaker offline live app)

# Sets out_var to the layers below `layer`, bottom first.
function(kerrow_layers_below layer out_var)
  list(FIND KERROW_LAYERS ${layer} index)
  if(index LESS 0)
    message(FATAL_ERROR "${layer} is not a declared layer of src/ (see cmake/KerrowLayers.cmake)")
  endif()
  set(below "")
  if(index GREATER 0)
    list(SUBLIST KERROW_LAYERS 0 ${index} below)
  endif()
  set(${out_var} ${below} PARENT_SCOPE)
endfunction()
