// Orders and questions about the agent itself: state, trace, log, mail, connections to other agents.
#include <fmt/format.h>

#include <cstring>

#include "agent_messages.h"
#include "base/memory.h"
#include "messages/records_server.h"
#include "messages/timestamp.h"
#include "qxcp/control/control.h"

namespace {

constexpr uint16_t own_client = 100;
constexpr uint32_t own_user = 1;

struct mail_element {
    char type;
    char flag;
    std::string text;
};

std::vector<mail_element> elements_of(const cp_mail& mail) {
    std::vector<mail_element> list;
    const auto add = [&list](char type, const std::string& text) {
        if (!text.empty()) {
            list.push_back({type, ' ', text});
        }
    };
    for (const auto& address : mail.to) {
        add('A', address);
    }
    for (const auto& address : mail.cc) {
        add('C', address);
    }
    for (const auto& file : mail.attachments) {
        add('D', file);
    }
    add('F', mail.from);
    add('I', mail.timeout > 0 ? std::to_string(mail.timeout) : "");
    add('L', mail.user);
    add('P', mail.password);
    add('S', mail.server);
    list.push_back({'T', mail.html ? 'H' : ' ', mail.text});
    return list;
}

template <class Message, class Element>
bool send_mail(cp_server* server, cp_agent& agent, const cp_mail& mail, cp_answer_handler handler) {
    message_builder<Message> order(own_client, own_user);
    const std::vector<mail_element> elements = elements_of(mail);
    put_text(order->subject, mail.subject);
    order->ah_idnr = server->next_request++;
    order.begin_table(Message::sub, elements.size());
    for (const mail_element& element : elements) {
        Element head{};
        head.type = element.type;
        head.flag = element.flag;
        Element::text(&head, 0, element.text.size());
        order.put_record(head);
        order.put(element.text);
    }
    return cp_send(server, agent, module_agent, order, std::move(handler));
}

}  // namespace

bool cp_query(cp_server* server, const std::string& name, cp_answer_handler handler) {
    cp_agent* agent = cp_find_agent(server, name);
    if (agent == nullptr) {
        return false;
    }
    auto query = new_message<MSG_TYPE_EXQUERY>(own_client, own_user);
    query.srvtime = timestamp_now();
    return cp_send(server, *agent, module_agent, query, std::move(handler));
}

bool cp_trace_get(cp_server* server, const std::string& name, cp_answer_handler handler) {
    cp_agent* agent = cp_find_agent(server, name);
    if (agent == nullptr) {
        return false;
    }
    auto query = new_message<MSG_TYPE_TRCGET>(own_client, own_user, 2);
    put_text(query.host, agent->link.agent);
    return cp_send(server, *agent, module_agent, query, std::move(handler));
}

bool cp_trace_set(cp_server* server, const std::string& name, const cp_trace_wish& wish) {
    cp_agent* agent = cp_find_agent(server, name);
    if (agent == nullptr) {
        return false;
    }
    message_builder<MSG_TYPE_TRCSET> order(own_client, own_user, wish.extended ? 2 : 1);
    put_text(order->host, agent->link.agent);
    put_text(order->flags, wish.flags);
    order->max_size = wish.max_size;
    order->trigger_type = wish.trigger_type;
    order->mem_trace = wish.memory ? '1' : '0';
    order->dump_memory = wish.dump ? '1' : '0';
    order->force_trace = wish.force ? '1' : '0';
    if (wish.extended) {
        order.add(MSG_TYPE_TRCSET::trigger, wish.trigger);
    }
    return cp_send(server, *agent, module_agent, order);
}

bool cp_change_log(cp_server* server, const std::string& name, cp_answer_handler handler) {
    cp_agent* agent = cp_find_agent(server, name);
    if (agent == nullptr) {
        return false;
    }
    auto order = new_message<MSG_TYPE_CHGLOG>(own_client, own_user);
    put_text(order.rtyp, "LOG");
    order.ah_idnr = server->store.next_report_id++;
    if (std::string fault = cp_store_save_numbers(server->store); !fault.empty()) {
        cp_emit(*server, "store", "", 0, fault);
    }
    return cp_send(server, *agent, module_agent, order, std::move(handler));
}

bool cp_send_mail(cp_server* server, const std::string& name, const cp_mail& mail, std::string& error,
                  cp_answer_handler handler) {
    cp_agent* agent = cp_find_agent(server, name);
    if (agent == nullptr) {
        error = control_no_agent_text(*server, name);
        return false;
    }
    if (mail.first_version && mail.text.size() > 0xFFFF) {
        error = "the text is longer than 65535 bytes";
        return false;
    }
    if (mail.subject.size() > sizeof MSG_TYPE_SNDMAIL2{}.subject) {
        error = "the subject is longer than 255 bytes";
        return false;
    }
    const bool sent =
        mail.first_version
            ? send_mail<MSG_TYPE_SNDMAIL, MSG_TYPE_SNDMAILX>(server, *agent, mail, std::move(handler))
            : send_mail<MSG_TYPE_SNDMAIL2, MSG_TYPE_SDMAIL2X>(server, *agent, mail, std::move(handler));
    if (!sent) {
        error = "the order could not be sent";
    }
    return sent;
}

bool cp_connect_agents(cp_server* server, const std::string& name, const std::string& partner,
                       const std::string& address, int port, const std::string& token,
                       cp_answer_handler handler) {
    cp_agent* agent = cp_find_agent(server, name);
    if (agent == nullptr) {
        return false;
    }
    message_builder<MSG_TYPE_CONNECT> order(own_client, own_user);
    put_text(order->name, partner);
    put_text(order->ipaddr, address);
    order->port = port;
    order.add(MSG_TYPE_CONNECT::gss_token, token);
    return cp_send(server, *agent, module_agent, order, std::move(handler));
}

bool cp_delegation_token(cp_server* server, const std::string& name, const std::string& partner,
                         std::string& token, std::string& error) {
    gss_cred_id_t cred = nullptr;
    gss_name_t receiver = nullptr;
    gss_ctx_id_t context = nullptr;
    gss_buffer_desc output;
    OM_uint32 minor = 0;
    uint8_t key[gss_key_size];
    uint8_t partner_key[gss_key_size];
    const int number = get_transfer_key(*server->identity.keys, name, key);
    const int partner_number = get_transfer_key(*server->identity.keys, partner, partner_key);
    OM_uint32 major = GSS_S_FAILURE;
    if (number != 0 || partner_number != 0) {
        error =
            fmt::format("there is no key of agent {}: it has never logged on", number != 0 ? name : partner);
    } else {
        const gss_buffer_desc text{name.size(), const_cast<char*>(name.data())};
        major = gss_acquire_cred_with_key(&minor, server->options.system, key, GSS_C_INITIATE, &cred);
        major = major == GSS_S_COMPLETE
                    ? gss_add_cred_with_key(&minor, cred, partner, partner_key, GSS_C_INITIATE)
                    : major;
        major = major == GSS_S_COMPLETE ? gss_import_name(&minor, &text, GSS_C_NT_MACHINE_UID_NAME, &receiver)
                                        : major;
        major =
            major == GSS_S_COMPLETE
                ? gss_init_sec_context(&minor, cred, &context, receiver, GSS_MECH_KLVT_QX7, GSS_C_DELEG_FLAG,
                                       GSS_C_INDEFINITE, nullptr, nullptr, nullptr, &output, nullptr, nullptr)
                : major;
        const bool made = major == GSS_S_COMPLETE || major == GSS_S_CONTINUE_NEEDED;
        if (made) {
            token.assign(static_cast<const char*>(output.value), output.length);
        } else {
            error = fmt::format("no token: {:08X}, {} {}", major, minor, gss_minor_text(minor));
        }
    }
    qx_wipe(key, sizeof key);
    qx_wipe(partner_key, sizeof partner_key);
    OM_uint32 ignored;
    gss_release_buffer(&ignored, &output);
    gss_delete_sec_context(&ignored, &context, nullptr);
    gss_release_name(&ignored, &receiver);
    gss_release_cred(&ignored, &cred);
    return error.empty();
}
