# The rooms of the source tree keep their direction, checked when CMake
# configures: what tools/ builds (the product) reaches nothing under tests/
# or testkit/, since the product never holds a private key; testkit/
# reaches nothing under tests/; and no target of tests/ builds a source of
# tools/. Included at the end of the top-level CMakeLists.txt, when every
# target exists.

# tse_room_of(PATH OUT): the top folder of the source tree that PATH lies in.
function(tse_room_of path out)
  file(RELATIVE_PATH relative ${PROJECT_SOURCE_DIR} ${path})
  string(REGEX REPLACE "/.*" "" room "${relative}")
  set(${out} ${room} PARENT_SCOPE)
endfunction()

# tse_linked_rooms(TARGET OUT): the rooms of every target TARGET links,
# directly or through others.
function(tse_linked_rooms target out)
  set(rooms)
  set(todo ${target})
  set(seen)
  while(todo)
    list(POP_FRONT todo current)
    if(NOT TARGET ${current} OR current IN_LIST seen)
      continue()
    endif()
    list(APPEND seen ${current})
    get_target_property(source_dir ${current} SOURCE_DIR)
    tse_room_of(${source_dir} room)
    list(APPEND rooms ${room})
    get_target_property(type ${current} TYPE)
    set(links)
    if(NOT type STREQUAL "INTERFACE_LIBRARY")
      get_target_property(links ${current} LINK_LIBRARIES)
    endif()
    get_target_property(interface_links ${current} INTERFACE_LINK_LIBRARIES)
    foreach(link IN LISTS links interface_links)
      # A static library's private links appear as $<LINK_ONLY:name>.
      if(link MATCHES "^\\$<LINK_ONLY:(.+)>$")
        set(link ${CMAKE_MATCH_1})
      endif()
      if(link AND NOT link MATCHES "NOTFOUND$")
        list(APPEND todo ${link})
      endif()
    endforeach()
  endwhile()
  list(REMOVE_DUPLICATES rooms)
  set(${out} ${rooms} PARENT_SCOPE)
endfunction()

# tse_room_may_not_reach(ROOM FORBIDDEN...): no target of ROOM links a target
# of the forbidden rooms.
function(tse_room_may_not_reach room)
  get_property(targets DIRECTORY ${PROJECT_SOURCE_DIR}/${room} PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target IN LISTS targets)
    tse_linked_rooms(${target} reached)
    foreach(forbidden IN LISTS ARGN)
      if(forbidden IN_LIST reached)
        message(FATAL_ERROR "${target} in ${room}/ links a target under ${forbidden}/")
      endif()
    endforeach()
  endforeach()
endfunction()

tse_room_may_not_reach(tools tests testkit)
tse_room_may_not_reach(testkit tests)

if(BUILD_TESTING)
  get_property(test_targets DIRECTORY ${PROJECT_SOURCE_DIR}/tests PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target IN LISTS test_targets)
    get_target_property(sources ${target} SOURCES)
    foreach(source IN LISTS sources)
      get_filename_component(path ${source} ABSOLUTE BASE_DIR ${PROJECT_SOURCE_DIR}/tests)
      tse_room_of(${path} room)
      if(room STREQUAL "tools")
        message(FATAL_ERROR "${target} in tests/ builds ${source} of tools/")
      endif()
    endforeach()
  endforeach()
endif()
