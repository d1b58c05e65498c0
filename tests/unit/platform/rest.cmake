kt_unit_test(rest_test
    SOURCES rest_access_test.cpp rest_answer_test.cpp rest_body_test.cpp rest_connection_test.cpp
            rest_multipart_test.cpp rest_query_test.cpp rest_route_test.cpp rest_start_test.cpp
            rest_tls_test.cpp
    LINK rest Threads::Threads)
