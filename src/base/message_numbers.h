// The numbers of the message library (share/QXX.msl), which has the texts of each, with its markers of
// inserts.
#pragma once

// What an agent says as a whole.
inline constexpr int number_upgrade_running = 65;
inline constexpr int number_no_memory = 3301;
inline constexpr int number_agent_starts = 2000000;
inline constexpr int number_agent_ended = 2000001;
inline constexpr int number_agent_ended_abnormally = 2000002;
inline constexpr int number_server_period = 2000017;
inline constexpr int number_hardware = 2000020;
inline constexpr int number_operating_system = 2000021;
inline constexpr int number_system_release = 2000022;
inline constexpr int number_bad_setting = 2000024;
inline constexpr int number_agent_shutdown = 2000041;
inline constexpr int number_open_files = 2000045;
inline constexpr int number_trace_flags = 2000047;
inline constexpr int number_program_width = 2000093;
inline constexpr int number_no_login_check = 2000231;
inline constexpr int number_agent_built = 2000232;
inline constexpr int number_ini_platform = 2000252;
inline constexpr int number_agent_without_root = 2003033;
inline constexpr int number_file_attributes = 2003034;
inline constexpr int number_cannot_continue = 2003049;
inline constexpr int number_agent_with_root = 2003054;
inline constexpr int number_process_started = 2003056;
inline constexpr int number_process_runs = 2003057;
inline constexpr int number_process_ended = 2003059;
inline constexpr int number_process_shutdown = 2003073;

// Calls of the system that failed.
inline constexpr int number_call_failed = 2000102;  // "call|errno and reason", in several forms
inline constexpr int number_thread_failed = 2000136;
inline constexpr int number_file_call = 2003041;    // "call|file|errno|reason|"
inline constexpr int number_named_call = 2003042;   // "call|what it was for|errno|reason|"
inline constexpr int number_system_call = 2003043;  // "call|errno|reason|"

// The log.
inline constexpr int number_log_started = 2000059;
inline constexpr int number_log_report = 2000067;
inline constexpr int number_log_continued = 2000130;
inline constexpr int number_log_not_written = 2003031;
inline constexpr int number_log_written_again = 2003032;

// Frames and items.
inline constexpr int number_frame_bad_handle = 1002201;
inline constexpr int number_frame_no_memory = 1002202;
inline constexpr int number_frame_bad_header = 1002203;
inline constexpr int number_item_wrong_size = 1002204;
inline constexpr int number_item_cut = 1002205;
inline constexpr int number_item_group_key = 1002206;
inline constexpr int number_type_not_allowed = 1002207;
inline constexpr int number_item_not_allowed = 1002208;
inline constexpr int number_type_unknown = 1002209;
inline constexpr int number_frame_too_long = 1002210;  // "length|partner|limit|"

// Walks over messages.
inline constexpr int number_walk_size_without_value = 1002401;
inline constexpr int number_walk_size_missing = 1002402;
inline constexpr int number_walk_no_terminator = 1002403;
inline constexpr int number_walk_overflow = 1002404;
inline constexpr int number_walk_bad_position = 1002407;
inline constexpr int number_walk_bad_count = 1002408;
inline constexpr int number_walk_too_short = 1002409;
inline constexpr int number_walk_bad_type = 1002410;
inline constexpr int number_walk_no_record = 1002411;
inline constexpr int number_walk_unknown_type = 1002412;
inline constexpr int number_walk_no_message = 1002413;
inline constexpr int number_walk_table_cut = 1005415;

// Checks of fields.
inline constexpr int number_check_failed = 2000207;
inline constexpr int number_check_too_long = 2000208;
inline constexpr int number_check_syntax = 2000209;
inline constexpr int number_check_parameter_count = 2000210;
inline constexpr int number_check_wrong_type = 2000211;
inline constexpr int number_check_failed_where = 2000212;
inline constexpr int number_check_not_compiled = 2000213;
inline constexpr int number_check_compiled = 2000214;
inline constexpr int number_checks_compiled = 2000215;
inline constexpr int number_checks_failed = 2000216;

// Connections, the listener.
inline constexpr int number_server_answered = 2000004;
inline constexpr int number_agent_connected = 2000006;
inline constexpr int number_agent_closed = 2000007;
inline constexpr int number_server_closed = 2000010;
inline constexpr int number_server_tried = 2000011;
inline constexpr int number_wrong_system = 2000019;
inline constexpr int number_sender = 2000033;
inline constexpr int number_wrong_agent = 2000061;
inline constexpr int number_no_answer = 2000064;
inline constexpr int number_host_address = 2000066;
inline constexpr int number_server_search = 2000072;
inline constexpr int number_server_chosen = 2000073;
inline constexpr int number_network_thread = 2000134;
inline constexpr int number_connecting = 2000348;
inline constexpr int number_server_ranking = 2000354;
inline constexpr int number_no_server = 2000355;
inline constexpr int number_no_ipv6 = 2000361;
inline constexpr int number_write_failed = 2002002;
inline constexpr int number_read_failed = 2002036;
inline constexpr int number_accepted = 2002039;
inline constexpr int number_connection_closed = 2002040;
inline constexpr int number_socket_handed = 2003060;
inline constexpr int number_socket_refused = 2003061;
inline constexpr int number_socket_taken = 2003062;
inline constexpr int number_channel_taken = 2003063;
inline constexpr int number_handshake_frame = 2003064;
inline constexpr int number_handshake_answer = 2003065;
inline constexpr int number_no_connection = 2003066;
inline constexpr int number_handshake_refused = 2003067;
inline constexpr int number_no_credential = 2003077;

// Keys and seals.
inline constexpr int number_unseal_failed = 2000098;
inline constexpr int number_initial_package = 2000103;
inline constexpr int number_security_call = 2000105;
inline constexpr int number_seal_failed = 2000143;

// Users and passwords.
inline constexpr int number_user_not_allowed = 2000029;
inline constexpr int number_pam_function = 2000086;
inline constexpr int number_pam_library = 2000087;
inline constexpr int number_pam_loaded = 2000088;
inline constexpr int number_user_unknown = 2001007;  // "user|"
inline constexpr int number_pam_passwords = 2003076;

// Jobs.
inline constexpr int number_job_started = 2000003;
inline constexpr int number_job_received = 2000005;
inline constexpr int number_job_ended = 2000008;
inline constexpr int number_job_ended_with_code = 2000009;
inline constexpr int number_jobs_checked = 2000015;
inline constexpr int number_messenger_version = 2000023;
inline constexpr int number_restart_mark = 2000031;
inline constexpr int number_job_cancel = 2000038;
inline constexpr int number_job_cancel_sent = 2000039;
inline constexpr int number_job_start_failed = 2000109;
inline constexpr int number_job_cancelled_waiting = 2001059;
inline constexpr int number_job_state = 2003010;
inline constexpr int number_job_duplicate = 2003026;
inline constexpr int number_shell_missing = 2003028;
inline constexpr int number_start_command = 2003030;
inline constexpr int number_no_such_job = 2003038;
inline constexpr int number_job_killed = 2003046;
// Whatever the reason: whoever asks learns no more than that.
inline constexpr int number_meld_not_taken = 2003078;

// Resources of jobs.
inline constexpr int number_cache_made = 2000237;
inline constexpr int number_resource_stored_new = 2000239;
inline constexpr int number_resource_stored = 2000240;
inline constexpr int number_cache_failed = 2000241;
inline constexpr int number_resource_file_failed = 2000242;
inline constexpr int number_resource_failed = 2000244;
inline constexpr int number_resource_unexpected = 2000245;
inline constexpr int number_resource_asked = 2000246;
inline constexpr int number_task_cache_failed = 2000247;
inline constexpr int number_cache_delete_failed = 2000248;
inline constexpr int number_task_cache_ready = 2000249;
inline constexpr int number_cache_deleted = 2000250;
inline constexpr int number_client_resource_started = 2001094;
inline constexpr int number_task_resource_started = 2001095;
inline constexpr int number_client_resource_ended = 2001096;
inline constexpr int number_task_resource_ended = 2001097;

// Commands.
inline constexpr int number_command_started = 2000169;
inline constexpr int number_command_start_failed = 2000170;
inline constexpr int number_command_ended = 2000171;
inline constexpr int number_command_failed = 2000172;
inline constexpr int number_command_cancel_all = 2000173;
inline constexpr int number_command_kill = 2000176;
inline constexpr int number_command_killed = 2000177;
inline constexpr int number_command_kill_failed = 2000179;
inline constexpr int number_command_rows_cut = 2000181;
inline constexpr int number_command_unreadable = 2000183;
inline constexpr int number_command_no_anonymous = 2000184;
inline constexpr int number_command_empty = 2000191;
inline constexpr int number_command_user_unknown = 2001087;
inline constexpr int number_command_user_refused = 2001088;
inline constexpr int number_command_time_limit = 2001091;
inline constexpr int number_command_cancel_one = 2001092;

// Files written and read for the server.
inline constexpr int number_file_write_order = 2000217;
inline constexpr int number_file_write_done = 2000218;
inline constexpr int number_file_write_not_done = 2000219;
inline constexpr int number_file_write_user = 2000220;
inline constexpr int number_file_write_failed = 2000222;
inline constexpr int number_file_write_exists = 2000223;
inline constexpr int number_file_write_open = 2000225;
inline constexpr int number_file_read_logged = 2000256;
inline constexpr int number_file_read_failed = 2000258;
inline constexpr int number_file_read_form = 2001055;
inline constexpr int number_file_read_no_login = 2001058;

// Reports.
inline constexpr int number_report_end_unreadable = 11402;
inline constexpr int number_report_started = 29000;
inline constexpr int number_report_ended = 29001;
inline constexpr int number_report_failed = 29002;
inline constexpr int number_report_open_failed = 29003;
inline constexpr int number_report_read_failed = 29004;
inline constexpr int number_report_unknown = 29005;
inline constexpr int number_report_erase_failed = 29006;
inline constexpr int number_report_block_limit = 29007;
inline constexpr int number_report_line_limit = 29008;
inline constexpr int number_report_line_cut = 29009;

// Mails.
inline constexpr int number_mail_no_server = 50001;      // "server|reason|", no such name, or none given
inline constexpr int number_mail_no_connection = 50002;  // "server|errno|reason|"
// "server|errno|reason|": failure, time-out or end of the line.
inline constexpr int number_mail_socket = 50003;
inline constexpr int number_mail_file = 50004;               // "file|errno|reason|"
inline constexpr int number_mail_greeting = 50005;           // "server|reply|"
inline constexpr int number_mail_sender_refused = 50006;     // "address|reply|"
inline constexpr int number_mail_recipient_refused = 50007;  // "address|reply|", a warning
inline constexpr int number_mail_data_refused = 50009;       // "server|reply|"
inline constexpr int number_mail_refused = 50010;            // "server|reply|"
inline constexpr int number_mail_no_memory = 50015;
inline constexpr int number_mail_address = 50016;        // "address|whose|"
inline constexpr int number_mail_logon_refused = 50027;  // "user|reply|"
inline constexpr int number_mail_no_recipient = 50028;   // "server|"
inline constexpr int number_mail_sent = 2000259;         // "order|"

// Orders.
inline constexpr int number_order_not_possible = 3610;  // "module|message|"
inline constexpr int number_order_distance = 2000084;   // "module|message|field"
inline constexpr int number_login_required = 2000096;   // "|"

// Transfers between agents.
inline constexpr int number_filelist_started = 11124;
inline constexpr int number_filelist_file = 11125;     // "name|bytes|"
inline constexpr int number_filelist_files = 11126;    // "files|"
inline constexpr int number_file_transferred = 11133;  // "destination|bytes|records|source|duration"
inline constexpr int number_file_not_transferred = 11134;
inline constexpr int number_destination_exists = 11404;            // "file|"
inline constexpr int number_transfer_ended = 11408;                // "transfer|"
inline constexpr int number_transfer_failed = 11409;               // "transfer|"
inline constexpr int number_file_sent = 11410;                     // "transfer|file|"
inline constexpr int number_file_received = 11411;                 // "transfer|file|"
inline constexpr int number_cancel_ordered = 11424;                // "transfer|"
inline constexpr int number_cancel_begun = 11425;                  // "transfer"
inline constexpr int number_cancel_unknown = 11426;                // "transfer|"
inline constexpr int number_transfer_cancelled = 11427;            // "transfer|"
inline constexpr int number_data_unknown = 11462;                  // "transfer|partner|"
inline constexpr int number_cancel_too_late = 11475;               // "transfer|"
inline constexpr int number_no_space = 11482;                      // "transfer|file|bytes|free bytes|"
inline constexpr int number_wildcard_no_source_mask = 11496;       // "transfer|source|"
inline constexpr int number_wildcard_no_destination_mask = 11499;  // "transfer|destination|"
inline constexpr int number_restart_begins = 63000;
inline constexpr int number_restart_list = 63001;
inline constexpr int number_restart_list_ends = 63002;
inline constexpr int number_repeat_anew = 63003;
inline constexpr int number_partner_misbehaves = 63009;  // "transfer|"
inline constexpr int number_store_version = 63011;       // "file|expected|found|"
inline constexpr int number_name_not_known = 63015;
inline constexpr int number_folder_missing = 63016;              // "transfer|folder|"
inline constexpr int number_source_unusable = 63017;             // "transfer|path|"
inline constexpr int number_transfer_open_failed = 63018;        // "transfer|file|errno and reason"
inline constexpr int number_transfer_write_failed = 63024;       // "transfer|file|errno and reason"
inline constexpr int number_transfer_read_failed = 63028;        // "transfer|file|errno and reason"
inline constexpr int number_source_erase_failed = 63036;         // "transfer|file|errno and reason|"
inline constexpr int number_transfer_identity_failed = 63037;    // "transfer"
inline constexpr int number_transfer_aborted = 63045;            // "transfer"
inline constexpr int number_store_key = 63047;                   // "key: name"
inline constexpr int number_transfer_known = 63048;              // "transfer|"
inline constexpr int number_transfer_connection_lost = 63049;    // "transfer|"
inline constexpr int number_transfer_connection_closed = 63051;  // "transfer|"
inline constexpr int number_no_empty_folders = 63057;            // "partner|"
inline constexpr int number_folder_transferred = 63058;          // "destination|source"
inline constexpr int number_filelist_folder = 63060;             // "name|"
inline constexpr int number_filelist_folders = 63061;            // "folders|"
inline constexpr int number_folder_not_transferred = 63062;      // "destination|source"
inline constexpr int number_folder_sent = 63063;                 // "transfer|folder"
inline constexpr int number_folder_received = 63064;             // "transfer|folder"
inline constexpr int number_name_unsupported = 63066;
inline constexpr int number_name_type_unknown = 63067;
inline constexpr int number_name_too_short = 63068;
inline constexpr int number_name_differs = 63069;
inline constexpr int number_source_is_link = 63077;           // "transfer|file|"
inline constexpr int number_source_link_broken = 63078;       // "transfer|file|target|"
inline constexpr int number_worker_died = 63083;              // "transfer|process id|exit code,status=..."
inline constexpr int number_transfer_sends = 63085;           // "transfer|repeated transfer|"
inline constexpr int number_transfer_receives = 63086;        // "transfer|repeated transfer|"
inline constexpr int number_transfer_lists = 63087;           // "transfer|source"
inline constexpr int number_transfer_lists_file = 63088;      // "transfer|file|"
inline constexpr int number_transfer_listed_files = 63089;    // "transfer|files|"
inline constexpr int number_transfer_lists_folder = 63090;    // "transfer|folder|"
inline constexpr int number_transfer_listed_folders = 63091;  // "transfer|folders|"
inline constexpr int number_worker_started = 63094;           // "agent's process id|name|process id|"
inline constexpr int number_worker_runs = 63095;              // "transfer|name|process id|"
inline constexpr int number_upgrade_waits_for_transfers = 2000287;  // "transfer(pid=process id)|"
inline constexpr int number_connection_of_transfer = 2003069;       // "name,(socket,ID)|former name"
inline constexpr int number_store_damaged = 2003071;
inline constexpr int number_transfer_unknown = 2003072;  // "transfer|message"
inline constexpr int number_folder_not_made = 2005072;   // "folder|errno(reason)"

// Transfers by the older protocol.
inline constexpr int number_legacy_cancelled = 1850;
inline constexpr int number_legacy_records_limit = 1911;
inline constexpr int number_legacy_no_file_name = 11405;  // "path|"
inline constexpr int number_legacy_started = 11407;       // "transfer|file|"
inline constexpr int number_legacy_write_failed = 11414;
inline constexpr int number_legacy_silent = 11415;         // "partner|"
inline constexpr int number_legacy_partner_lost = 11416;   // "partner|"
inline constexpr int number_legacy_line_too_long = 11420;  // "bytes|"
inline constexpr int number_legacy_restart_note = 11445;
inline constexpr int number_legacy_restart_refused = 11446;
inline constexpr int number_legacy_erase_failed = 11460;   // "file|errno|reason|"
inline constexpr int number_legacy_temp_exists = 11470;    // "file|"
inline constexpr int number_legacy_rename_failed = 11471;  // "from|to|reason|"
inline constexpr int number_legacy_restart_impossible = 11476;
inline constexpr int number_legacy_no_connection = 2003029;    // "partner|"
inline constexpr int number_legacy_no_regular_file = 2003035;  // "file|"
inline constexpr int number_legacy_no_access = 2003036;        // "file|"
inline constexpr int number_legacy_relative_name = 2003051;    // "file|"
inline constexpr int number_legacy_unknown = 2003053;          // "message|agent|partner|transfer|"

// The compressed stream.
inline constexpr int number_compress_no_memory = 1002000;
inline constexpr int number_compress_bad_call = 1002001;
inline constexpr int number_compress_invalid_data = 1002002;
inline constexpr int number_compress_zlib_error = 1002004;
inline constexpr int number_compress_behind_zlib = 1002005;
inline constexpr int number_compress_zlib_incomplete = 1002006;
inline constexpr int number_compress_item_incomplete = 1002007;
inline constexpr int number_compress_invalid_header = 1002009;
inline constexpr int number_compress_zlib_no_memory = 1002010;
inline constexpr int number_compress_text_differs = 1002011;
