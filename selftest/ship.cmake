# What is shipped beside the program: packages, manual page, completion; and how the sources hang
# together.
set(plain ${CMAKE_CURRENT_LIST_DIR}/tools/plain.sh)
add_test(NAME ship
  COMMAND sh ${plain} sh ${CMAKE_CURRENT_LIST_DIR}/tools/ship.sh ${CMAKE_COMMAND} ${CMAKE_CPACK_COMMAND}
  ${PROJECT_BINARY_DIR} $<TARGET_FILE:softtoken>)
add_test(NAME names
  COMMAND sh ${plain} sh ${CMAKE_CURRENT_LIST_DIR}/tools/names.sh ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR})
foreach(check layout phrases)
  add_test(NAME ${check}
    COMMAND sh ${plain} perl ${CMAKE_CURRENT_LIST_DIR}/tools/${check}.pl ${PROJECT_SOURCE_DIR})
endforeach()
set_tests_properties(ship PROPERTIES COST 10)  # begins early: it takes the longest
