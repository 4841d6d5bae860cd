# tessera_module(<module target> <file name stem>
#                ENTRY <source> IMPLEMENTATION <static library>
#                LOADER <static library> <source>
#                FOR <library>)
#
# Builds code that needs a large third-party library twice: as
# <IMPLEMENTATION>, a static library that tests and tools link by default,
# and as a module beside the tool (lib<stem>.so; <stem>.dll on Windows) whose
# <ENTRY> exports the module's table: the entry is declared
# TESSERA_MODULE_EXPORT, which this function defines for the module.
# <LOADER> is a static library of <source>, which defines the same functions
# as <IMPLEMENTATION> by loading the module on first use.
# A target that links <FOR> gets the loader when its property
# TESSERA_MEDIA_MODULE is set, and the implementation otherwise. A module
# may set the property too, to reach other modules through their loaders
# (the TIFF module reaches the RAW module); it never gets its own loader.
# Modules that do must not form a cycle (A links B's loader, B links A's).
#
# The implementation and every static library of ours that it links must be
# position-independent (POSITION_INDEPENDENT_CODE); the caller sets that.
function(tessera_module target stem)
  cmake_parse_arguments(ARG "" "ENTRY;IMPLEMENTATION;FOR" "LOADER" ${ARGN})
  list(GET ARG_LOADER 0 loader)
  list(SUBLIST ARG_LOADER 1 -1 loader_sources)

  add_library(${target} MODULE ${ARG_ENTRY})
  target_link_libraries(${target} PRIVATE ${ARG_IMPLEMENTATION} ${ARG_FOR})
  tessera_module_export(${target})
  if(WIN32)
    # A DLL that imports nothing but system DLLs: every library, the C++
    # runtime included, is linked in (a copy of its own, like our code).
    target_link_options(${target} PRIVATE -static -static-libgcc -static-libstdc++ -Wl,--no-undefined)
    set_target_properties(${target} PROPERTIES PREFIX "" OUTPUT_NAME "${stem}"
                          LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tool/thumbnail-tool)
  else()
    # Only the entry point is exported, and the module binds to its own copies
    # of our code, never to the executable's.
    target_link_options(${target} PRIVATE -Wl,--exclude-libs,ALL -Wl,-Bsymbolic -Wl,--no-undefined
                        -Wl,-z,now)
    set_target_properties(${target} PROPERTIES PREFIX "lib" OUTPUT_NAME "${stem}"
                          LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tool/thumbnail-tool)
  endif()

  add_library(${loader} STATIC ${loader_sources})
  # Position-independent: a module that reaches other modules links their
  # loaders.
  set_target_properties(${loader} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  target_link_libraries(${loader} PUBLIC ${ARG_FOR} PRIVATE tessera_module_loader)
  add_dependencies(${loader} ${target})
  target_link_libraries(${ARG_FOR} INTERFACE
      "$<IF:$<BOOL:$<TARGET_PROPERTY:TESSERA_MEDIA_MODULE>>,$<$<NOT:$<STREQUAL:$<TARGET_PROPERTY:NAME>,${target}>>:${loader}>,${ARG_IMPLEMENTATION}>")
endfunction()

# tessera_module_export(<module target>)
#
# Defines TESSERA_MODULE_EXPORT for the sources of a loadable module: what
# makes its one entry point visible to the loader (dllexport on Windows, where
# nothing else is then exported; default visibility elsewhere).
function(tessera_module_export target)
  if(WIN32)
    target_compile_definitions(${target} PRIVATE "TESSERA_MODULE_EXPORT=__declspec(dllexport)")
  else()
    target_compile_definitions(${target} PRIVATE "TESSERA_MODULE_EXPORT=__attribute__((visibility(\"default\")))")
  endif()
endfunction()
