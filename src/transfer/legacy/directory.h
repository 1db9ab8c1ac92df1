// Lists of files for the server.
#pragma once

#include <cstddef>
#include <ctime>

size_t ft_lists_under_way();
void ft_forget_lists();
// Those whose server has said nothing for long.
void ft_drop_silent_lists(time_t now);
