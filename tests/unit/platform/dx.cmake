kt_unit_test(dx_test
    SOURCES dx_client_test.cpp dx_cost_test.cpp dx_crash_test.cpp dx_damage_test.cpp
            dx_provider_test.cpp
    LINK kt-dx)
# The store file itself: what damage to it does, and how much memory it takes.
target_include_directories(dx_test PRIVATE
    ${CMAKE_CURRENT_LIST_DIR}/../../../platform/libkt-dx/src
    ${CMAKE_CURRENT_LIST_DIR}/../../../platform/include-internal)
target_compile_definitions(dx_test PRIVATE _FILE_OFFSET_BITS=64)
set_target_properties(dx_test PROPERTIES DISABLE_PRECOMPILE_HEADERS ON) # read with that definition

# A provider for tests of kt-tag and other clients.
add_executable(dx-test-provider ${CMAKE_CURRENT_LIST_DIR}/../../support/dx_provider.cpp)
target_link_libraries(dx-test-provider PRIVATE kt-dx kt_options)

# Load on the bus and on tags, and how long values take, for tests that run long.
add_executable(load-node ${CMAKE_CURRENT_LIST_DIR}/../../support/load_node.cpp)
target_link_libraries(load-node PRIVATE kt-dx kt_options)
