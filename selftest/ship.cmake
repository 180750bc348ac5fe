# What is shipped beside the program: packages, manual page, completion.
add_test(NAME ship
  COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/ship.sh ${CMAKE_COMMAND} ${CMAKE_CPACK_COMMAND}
  ${PROJECT_BINARY_DIR} $<TARGET_FILE:softtoken>)
add_test(NAME names
  COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/names.sh ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR})
add_test(NAME layout COMMAND perl ${CMAKE_CURRENT_LIST_DIR}/layout.pl ${PROJECT_SOURCE_DIR})
set_tests_properties(ship PROPERTIES COST 10)  # begins early: it takes the longest
