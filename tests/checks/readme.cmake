# What the documents say about the code, compared with the code.
add_test(NAME checks.readme_example COMMAND
         /usr/bin/python3 "${CMAKE_CURRENT_LIST_DIR}/readme_example.py" "${PROJECT_SOURCE_DIR}")
add_test(NAME checks.documented_texts COMMAND
         /usr/bin/python3 "${CMAKE_CURRENT_LIST_DIR}/documented_texts.py" "${PROJECT_SOURCE_DIR}")
# Instrumented builds have nothing to add to these.
if(NOT KELO_SANITIZE AND NOT KELO_COVERAGE)
    add_test(NAME checks.protocol_document COMMAND /usr/bin/python3
             "${CMAKE_CURRENT_LIST_DIR}/check_protocol.py" "${PROJECT_SOURCE_DIR}" ${CMAKE_CXX_COMPILER})
    add_test(NAME checks.snippets COMMAND /usr/bin/python3
             "${CMAKE_CURRENT_LIST_DIR}/check_snippets.py" "${PROJECT_SOURCE_DIR}"
             ${CMAKE_C_COMPILER} ${CMAKE_CXX_COMPILER})
    add_test(NAME checks.log_index COMMAND /usr/bin/python3
             "${CMAKE_CURRENT_LIST_DIR}/log_index.py" "${PROJECT_SOURCE_DIR}")
    foreach(what links commands run)
        add_test(NAME checks.documents_${what} COMMAND /usr/bin/python3
                 "${CMAKE_CURRENT_LIST_DIR}/check_docs.py" ${what} "${PROJECT_SOURCE_DIR}"
                 "${PROJECT_BINARY_DIR}")
        set_tests_properties(checks.documents_${what} PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 300)
    endforeach()
endif()
