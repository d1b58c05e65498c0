include_guard()

set(KT_TEST_DOUBLES ${CMAKE_CURRENT_LIST_DIR})

# The names that the C library gives these where times have 64 bits and long has 32
set(kt_wide_nanosleep __nanosleep64)
set(kt_wide_select __select64)
set(kt_wide_stat __stat64_time64)
set(kt_wide_setsockopt __setsockopt64)
set(kt_wide_getsockopt __getsockopt64)

# kt_wrap(TARGET symbol...): calls of these functions reach the program's __wrap_ functions.
function(kt_wrap target)
    foreach(symbol ${ARGN})
        set(linked ${symbol})
        if(kt_wide_types AND DEFINED kt_wide_${symbol})
            set(linked ${kt_wide_${symbol}})
            target_compile_definitions(${target} PRIVATE __wrap_${symbol}=__wrap_${linked}
                                                         __real_${symbol}=__real_${linked})
        endif()
        target_link_options(${target} PRIVATE LINKER:--wrap=${linked})
    endforeach()
endfunction()

# kt_allocation_faults(TARGET): allocations of the code under test can be made to fail.
function(kt_allocation_faults target)
    target_sources(${target} PRIVATE ${KT_TEST_DOUBLES}/allocation_fault.cpp)
    # new (std::nothrow), single and array, where size_t is unsigned long or unsigned int
    kt_wrap(${target} malloc calloc strdup _ZnwmRKSt9nothrow_t _ZnamRKSt9nothrow_t
                      _ZnwjRKSt9nothrow_t _ZnajRKSt9nothrow_t)
endfunction()

# kt_json_faults(TARGET): the calls by which JSON values are built and written can be made to fail.
function(kt_json_faults target)
    target_sources(${target} PRIVATE ${KT_TEST_DOUBLES}/json_fault.cpp)
    kt_wrap(${target} json_value_init_object json_value_init_array json_object_dotset_number
                      json_object_dotset_string json_object_dotset_boolean
                      json_object_dotset_value json_object_set_value json_array_append_value
                      json_array_append_number json_serialize_to_string)
endfunction()

# kt_fake_sleep(TARGET): nanosleep() returns at once and is recorded.
function(kt_fake_sleep target)
    target_sources(${target} PRIVATE ${KT_TEST_DOUBLES}/fake_sleep.cpp)
    kt_wrap(${target} nanosleep)
endfunction()

# kt_crash_points(TARGET): changes to the file system can end the process or fail.
function(kt_crash_points target)
    target_sources(${target} PRIVATE ${KT_TEST_DOUBLES}/crash_point.cpp)
    kt_wrap(${target} rename remove unlink mkdir fsync write)
endfunction()

# kt_fake_semaphore(TARGET): inter-process locks can fail.
function(kt_fake_semaphore target)
    target_sources(${target} PRIVATE ${KT_TEST_DOUBLES}/fake_semaphore.cpp)
    kt_wrap(${target} semaphoreDown semaphoreUp)
endfunction()

# kt_mutex_faults(TARGET): mutexes can fail.
function(kt_mutex_faults target)
    target_sources(${target} PRIVATE ${KT_TEST_DOUBLES}/mutex_fault.cpp)
    kt_wrap(${target} pthread_mutex_lock pthread_mutex_unlock)
endfunction()
