// The system variables: what the agent tells about itself and its host, and the account for mails. Plain
// data; filled at the start on the main thread, read by any thread afterwards.
#pragma once

struct EX_PCX;

struct _ExecutorVar {
    char Key[16];  // "%%EXECUTOR VAR%%", no NUL
    EX_PCX* pPcx;
    void* pFrame;
    char* GlbSysName;
    char* exName;
    char* exNodeName;
    char exVers[64];
    char exBuild_Date[16];
    char exBuild_Time[16];
    char reserved1;
    char ExStart_Typ;  // qx_start_type: cold until the first logon was answered
    char SwAddrMode;   // 'L' for 64 bits
    char Filler;
    char ipAddr[64];
    int ipPort;
    int activeCPU;
    int availCPU;
    int LogCpuPerProc;
    char OS_sysname[64];
    char OS_release[64];
    char OS_version[64];
    char OS_machine[64];
    char OS_idnumber[64];
    char OS_nodename[256];
    char QxHostCode[200];
    char QxHostJclVar[32];
    char smtp_server[256];
    char smtp_from_addr[256];
    char smtp_username[200];
    char smtp_password[63];
};
