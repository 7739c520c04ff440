// Doubly linked queues: elements stay where they are while others come and go.
#pragma once

#include <list>

template <class T>
using conf_dlq_list_t = std::list<T>;
