#include <gtest/gtest.h>

#include "varkel.h"

TEST(Handle, Smoke)
{
  varkel_t* v = varkel_new(varkelQuad);
  ASSERT_NE(v, nullptr);
  varkel_delete(v);
}
