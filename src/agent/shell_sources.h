// Joins the service console with what it shows and with the way on which its commands come.
#pragma once

// Hands the list of jobs down to the console, and the console to the report transfer. Main thread, at start.
void open_agent_shell();
