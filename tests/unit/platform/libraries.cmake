include(${CMAKE_SOURCE_DIR}/tests/support/doubles.cmake)

kt_unit_test(platform_test SOURCES platform_test.cpp termination_test.cpp LINK kt-platform)
kt_unit_test(event_agent_test SOURCES event_agent_test.cpp LINK kt-event-agent parson)
kt_wrap(event_agent_test nanosleep)
kt_unit_test(net_test SOURCES net_test.cpp LINK kt-net)
kt_unit_test(protocol_common_test
    SOURCES protocol_common_test.cpp path_lock_test.cpp database_merge_test.cpp
    LINK kt-protocol-common)
kt_unit_test(rest_time_test SOURCES rest_time_test.cpp LINK rest-time)
kt_unit_test(parson_test SOURCES parson_test.cpp LINK parson PkgConfig::JANSSON)
kt_allocation_faults(parson_test)

# Parts behind the public headers: where the kernel or its folders have to be replaced.
target_include_directories(platform_test PRIVATE
    ${CMAKE_CURRENT_LIST_DIR}/../../../platform/libkt-platform/src)
