#ifndef TEST_MSVC_ASSERT_H
#define TEST_MSVC_ASSERT_H

#define static_assert _Static_assert

#endif
