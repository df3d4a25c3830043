# Fails when a file of one layer includes a file of a higher layer, or when a layer below the
# facade includes the facade's public headers. Run as a build step:
#   cmake -DSOURCE_DIR=<src> -DLAYERS=util,platform,...,links -P CheckLayers.cmake
# A layer may include its own files and those of every layer listed before it, except that
# device and cache, which share a rank, do not include each other. The host test kit
# (testing/) includes public headers only.
cmake_minimum_required(VERSION 3.25)

set(facade_headers QuorvelTracker.h QuorvelLinkGenerator.h QuorvelShareInviteHelper.h
    QuorvelCrossPromotionHelper.h)
set(facade_layers tracker links capi)
set(same_rank device cache)

string(REPLACE "," ";" LAYERS "${LAYERS}")
set(failures "")
list(LENGTH LAYERS count)
math(EXPR last "${count} - 1")
foreach(index RANGE ${last})
  list(GET LAYERS ${index} layer)
  list(SUBLIST LAYERS 0 ${index} below)
  file(GLOB_RECURSE files "${SOURCE_DIR}/${layer}/*.h" "${SOURCE_DIR}/${layer}/*.cpp")
  foreach(file IN LISTS files)
    file(STRINGS "${file}" includes REGEX "^[ \t]*#[ \t]*include[ \t]*[\"<]")
    file(RELATIVE_PATH shown "${SOURCE_DIR}" "${file}")
    foreach(line IN LISTS includes)
      if(line MATCHES "#[ \t]*include[ \t]*\"([a-z]+)/")
        set(target "${CMAKE_MATCH_1}")
        if(target STREQUAL layer)
          continue()
        endif()
        list(FIND below "${target}" found)
        if(found EQUAL -1 OR (layer IN_LIST same_rank AND target IN_LIST same_rank))
          list(APPEND failures "${shown}: ${line} (${layer} may not include ${target})")
        endif()
      elseif(line MATCHES "#[ \t]*include[ \t]*<quorvel/([A-Za-z]+\\.h)>")
        if(CMAKE_MATCH_1 IN_LIST facade_headers AND NOT layer IN_LIST facade_layers)
          list(APPEND failures "${shown}: ${line} (only the facade includes ${CMAKE_MATCH_1})")
        endif()
      endif()
    endforeach()
  endforeach()
endforeach()

file(GLOB_RECURSE kit "${SOURCE_DIR}/testing/*.cpp" "${SOURCE_DIR}/testing/*.h")
foreach(file IN LISTS kit)
  file(STRINGS "${file}" includes REGEX "^[ \t]*#[ \t]*include[ \t]*\"[a-z]+/")
  file(RELATIVE_PATH shown "${SOURCE_DIR}" "${file}")
  foreach(line IN LISTS includes)
    list(APPEND failures "${shown}: ${line} (the test kit uses the public headers only)")
  endforeach()
endforeach()

if(failures)
  list(JOIN failures "\n  " text)
  message(FATAL_ERROR "Layering broken:\n  ${text}")
endif()
