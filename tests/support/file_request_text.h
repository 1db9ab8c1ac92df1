// XML requests for file retrieval as a server writes them, and what their answers hold.
#pragma once

#include <cstring>
#include <string>

#include "base/base64.h"
#include "base/text.h"
#include "retrieval/file_retrieval_request.h"

struct file_wish {
    std::string key = "K1";
    std::string file;
    char type = 'T';
    char direction = 'B';
    int records = 10;
    int blocksize = 1000;
    std::string login = "LOGIN.TEST";
    unsigned user = 7;
    std::string request_type = "GETFILE ";
};

inline std::string file_request_record(const file_wish& wish) {
    RCV_CD record{};
    put_text(record.cd_requesttype, wish.request_type);
    put_text(record.cd_filename, wish.file);
    put_text(record.cd_loginobject, wish.login);
    record.cd_blocksize = wish.blocksize;
    record.cd_records = wish.records;
    record.cd_client = 100;
    record.cd_filetype = wish.type;
    record.cd_readdirection = wish.direction;
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

inline std::string file_request_xml(const file_wish& wish) {
    std::string text = "<?xml version=\"1.0\"?><qx-env addr=\"*CP001\" name=\"UI\" request=\"" + wish.key +
                       "\" session=\"5\" useridnr=\"" + std::to_string(wish.user) +
                       "\"><request name=\"GETFILE\" src=\"UI\"><![CDATA[";
    base64_encode(file_request_record(wish), &text);
    return text + "]]></request></qx-env>";
}

struct file_answer {
    bool data = false;
    std::string key;
    long long remaining = -1;
    long long pos = -1;
    std::string text;
    int number = 0;
    std::string insert;
};

inline std::string between(const std::string& text, const std::string& from, const std::string& to) {
    const size_t begin = text.find(from);
    const size_t end = begin == std::string::npos ? begin : text.find(to, begin + from.size());
    return end == std::string::npos ? "" : text.substr(begin + from.size(), end - begin - from.size());
}

inline file_answer read_file_answer(const std::string& xml) {
    file_answer answer;
    answer.key = between(xml, "<qx-env request=\"", "\"");
    const std::string coded = between(xml, "<![CDATA[", "]]>");
    std::string record;
    MSG_TYPE_XML_DATA head{};
    if (!coded.empty() && base64_decode(coded, &record) && record.size() >= sizeof head) {
        memcpy(&head, record.data(), sizeof head);
        answer.data = static_cast<size_t>(head.datalen) == record.size() - sizeof head;
        answer.remaining = head.remaining_bytes;
        answer.pos = head.pos;
        answer.text = record.substr(sizeof head);
    } else {
        answer.number = atoi(between(xml, "msgnr=\"", "\"").c_str());
        answer.insert = between(xml, "insert=\"", "\"");
    }
    return answer;
}
