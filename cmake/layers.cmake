# The layer check. Each library is linked whole into a program of its own
# with nothing but what its target says it may use, so a reference to a
# function or variable of a higher layer is an undefined symbol and the build
# stops there. Headers are kept apart the same way: a library's include path
# holds its own folder and those of the layers below it.
#
#     orkad_common    (common/: the agent)
#          |      \
#          |     orkad_platform  (platform/: switch adapter, device services)
#          |      /      |
#          |     /   orkad_openapi (openapi/: the switch API; simulated here)
#          |    /       /
#     orkad_base      (base/: logging, threads, queues, tables, signals,
#                      events, utilities, settings database, device paths,
#                      RAII owners)
function(orkad_layer_check library)
    set(check orkad_layer_check_${library})
    add_executable(${check} ${PROJECT_SOURCE_DIR}/cmake/layer_check.cpp)
    target_link_libraries(${check} PRIVATE "$<LINK_LIBRARY:WHOLE_ARCHIVE,${library}>")
endfunction()

orkad_layer_check(orkad_base)
if(ORKAD_SWITCH_SIMULATOR)
    orkad_layer_check(orkad_openapi)
endif()
orkad_layer_check(orkad_platform)
orkad_layer_check(orkad_common)
