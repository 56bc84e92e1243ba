#include "sql/SqlStream.h"

// The two stream kinds every database stage uses, compiled once here.
template class sqlstl::basic_sqlstream<char>;
template class sqlstl::basic_sqlostream<char>;
template class sqlstl::basic_sqlistream<char>;
