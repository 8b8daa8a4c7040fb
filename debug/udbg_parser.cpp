// udbg_parser.cpp - character-driven state machine that turns one debug shell line
// into a name, a kind (call, assignment, bare name) and up to ten arguments.
#include "udbg_parser.h"

#include <cstring>

#include "udbg_log.h"

namespace {

// The states, in the order their names are printed. AFTER_INTEGER (an integer followed
// by blanks) has no name of its own and is shown as "unknown state".
enum class St {
    STARTING,
    WAIT_FUNC_NAME,
    FUNC_NAME_END,
    WAIT_RECEIVE_FIRST_ARG,
    WAIT_RECEIVE_ARG,
    WAIT_RECEIVE_INTEGER_ARG,
    WAIT_RECEIVE_STRING_ARG,
    RECEIVE_STRING_ARG_END,
    WAIT_RECEIVE_OCT_OR_HEX_ARG,
    WAIT_RECEIVE_DEC_ARG,
    WAIT_RECEIVE_OCT_ARG,
    WAIT_RECEIVE_HEX_ARG,
    ENDING,
    AFTER_INTEGER,
};

// Characters of one integer, sign and prefix included.
constexpr int kDecMax = 20;
constexpr int kOctMax = 23;
constexpr int kHexMax = 17;

const char *state_name(St s)
{
    switch (s) {
    case St::STARTING: return "STARTING";
    case St::WAIT_FUNC_NAME: return "WAIT_FUNC_NAME";
    case St::FUNC_NAME_END: return "FUNC_NAME_END";
    case St::WAIT_RECEIVE_FIRST_ARG: return "WAIT_RECEIVE_FIRST_ARG";
    case St::WAIT_RECEIVE_ARG: return "WAIT_RECEIVE_ARG";
    case St::WAIT_RECEIVE_INTEGER_ARG: return "WAIT_RECEIVE_INTEGER_ARG";
    case St::WAIT_RECEIVE_STRING_ARG: return "WAIT_RECEIVE_STRING_ARG";
    case St::RECEIVE_STRING_ARG_END: return "RECEIVE_STRING_ARG_END";
    case St::WAIT_RECEIVE_OCT_OR_HEX_ARG: return "WAIT_RECEIVE_OCT_OR_HEX_ARG";
    case St::WAIT_RECEIVE_DEC_ARG: return "WAIT_RECEIVE_DEC_ARG";
    case St::WAIT_RECEIVE_OCT_ARG: return "WAIT_RECEIVE_OCT_ARG";
    case St::WAIT_RECEIVE_HEX_ARG: return "WAIT_RECEIVE_HEX_ARG";
    case St::ENDING: return "ENDING";
    default: return "unknown state";
    }
}

void udbg_state_dump(St s)
{
    UDBG_DBG("%s\n", state_name(s));
}

bool is_blank(char c) { return c == ' ' || c == '\t'; }
bool is_name_start(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
bool is_name_char(char c) { return is_name_start(c) || (c >= '0' && c <= '9'); }
bool is_oct(char c) { return c >= '0' && c <= '7'; }
bool is_dec(char c) { return c >= '0' && c <= '9'; }
bool is_hex(char c)
{
    return is_dec(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

class Parser {
public:
    explicit Parser(udbg_cmd *cmd) : cmd_(cmd) {}

    bool run(const char *line)
    {
        enter(St::STARTING);
        for (const char *p = line;; p++) {
            if (!step(*p))
                return false;
            if (*p == '\0')
                return true;
        }
    }

private:
    void enter(St s)
    {
        if (s != st_ || !entered_) {
            st_ = s;
            entered_ = true;
            udbg_state_dump(s);
        }
    }

    udbg_arg &cur() { return cmd_->args[cmd_->argc - 1]; }
    const udbg_arg &cur() const { return cmd_->args[cmd_->argc - 1]; }

    // Starts a new argument; the eleventh is refused.
    bool open_arg(uint32_t type)
    {
        if (cmd_->argc >= UDBG_ARGC_MAX)
            return false;
        cmd_->argc++;
        cur().type = type;
        len_ = 0;
        cur().text[0] = '\0';
        return true;
    }

    bool append_name(char c)
    {
        size_t n = strlen(cmd_->name);
        if (n >= static_cast<size_t>(UDBG_NAME_MAX))
            return false;
        cmd_->name[n] = c;
        cmd_->name[n + 1] = '\0';
        return true;
    }

    bool append_arg(char c, int limit)
    {
        if (len_ >= limit)
            return false;
        cur().text[len_++] = c;
        cur().text[len_] = '\0';
        return true;
    }

    // A sign is stored with the digits but does not count against the limit.
    int int_limit(int limit) const { return cur().text[0] == '-' ? limit + 1 : limit; }

    // First character of a value: after "(", "=" or ",".
    bool start_value(char c)
    {
        if (c == '"') {
            if (!open_arg(UDBG_ARG_STRING))
                return false;
            enter(St::WAIT_RECEIVE_STRING_ARG);
            return true;
        }
        if (c == '-' || is_dec(c)) {
            if (!open_arg(UDBG_ARG_INTEGER))
                return false;
            append_arg(c, UDBG_ARG_MAX);
            enter(c == '-' ? St::WAIT_RECEIVE_INTEGER_ARG
                           : c == '0' ? St::WAIT_RECEIVE_OCT_OR_HEX_ARG : St::WAIT_RECEIVE_DEC_ARG);
            return true;
        }
        return false;
    }

    // What may follow a complete value: ",", ")" or the end (each as the kind allows).
    bool after_value(char c)
    {
        if (c == ',') {
            if (!cmd_->is_call)
                return false;   // a variable takes one value
            enter(St::WAIT_RECEIVE_ARG);
            return true;
        }
        if (c == ')') {
            if (!cmd_->is_call)
                return false;
            enter(St::ENDING);
            return true;
        }
        if (c == '\0')
            return !cmd_->is_call;   // a call must be closed; an assignment ends here
        return false;
    }

    bool integer_char(char c, bool digit_ok, int limit, St next)
    {
        if (digit_ok) {
            if (!append_arg(c, int_limit(limit)))
                return false;
            enter(next);
            return true;
        }
        if (is_blank(c)) {
            enter(St::AFTER_INTEGER);
            return true;
        }
        return after_value(c);
    }

    bool step(char c)
    {
        switch (st_) {
        case St::STARTING:
            if (is_blank(c))
                return true;
            if (!is_name_start(c))
                return false;
            append_name(c);
            enter(St::WAIT_FUNC_NAME);
            return true;

        case St::WAIT_FUNC_NAME:
            if (is_name_char(c))
                return append_name(c);
            if (is_blank(c)) {
                enter(St::FUNC_NAME_END);
                return true;
            }
            return name_end(c);

        case St::FUNC_NAME_END:
            if (is_blank(c))
                return true;
            return name_end(c);

        case St::WAIT_RECEIVE_FIRST_ARG:
            if (is_blank(c))
                return true;
            if (c == ')' && cmd_->is_call) {
                enter(St::ENDING);
                return true;
            }
            return start_value(c);

        case St::WAIT_RECEIVE_ARG:
            if (is_blank(c))
                return true;
            return start_value(c);

        case St::WAIT_RECEIVE_INTEGER_ARG:   // after "-"
            if (!is_dec(c))
                return false;
            append_arg(c, UDBG_ARG_MAX);
            enter(c == '0' ? St::WAIT_RECEIVE_OCT_OR_HEX_ARG : St::WAIT_RECEIVE_DEC_ARG);
            return true;

        case St::WAIT_RECEIVE_STRING_ARG:
            if (c == '\0')
                return false;
            if (c == '"') {
                enter(St::RECEIVE_STRING_ARG_END);
                return true;
            }
            return append_arg(c, UDBG_ARG_MAX);

        case St::RECEIVE_STRING_ARG_END:
            if (is_blank(c) && cmd_->is_call)
                return true;
            return after_value(c);

        case St::WAIT_RECEIVE_OCT_OR_HEX_ARG:   // after a leading "0"
            if (c == 'x' || c == 'X') {
                if (!append_arg(c, int_limit(kHexMax)))
                    return false;
                enter(St::WAIT_RECEIVE_HEX_ARG);
                return true;
            }
            return integer_char(c, is_oct(c), kOctMax, St::WAIT_RECEIVE_OCT_ARG);

        case St::WAIT_RECEIVE_DEC_ARG:
            return integer_char(c, is_dec(c), kDecMax, St::WAIT_RECEIVE_DEC_ARG);

        case St::WAIT_RECEIVE_OCT_ARG:
            return integer_char(c, is_oct(c), kOctMax, St::WAIT_RECEIVE_OCT_ARG);

        case St::WAIT_RECEIVE_HEX_ARG: {
            if (is_hex(c))
                return integer_char(c, true, kHexMax, St::WAIT_RECEIVE_HEX_ARG);
            // "0x" needs at least one digit after it.
            const char *t = cur().text;
            size_t n = strlen(t);
            if (t[n - 1] == 'x' || t[n - 1] == 'X')
                return false;
            return integer_char(c, false, kHexMax, St::WAIT_RECEIVE_HEX_ARG);
        }

        case St::AFTER_INTEGER:
            if (is_blank(c))
                return true;
            // An assignment ends inside or just after its integer, not after blanks.
            if (c == '\0')
                return false;
            return after_value(c);

        case St::ENDING:
            return is_blank(c) || c == '\0';
        }
        return false;
    }

    // After the name: "(" opens a call, "=" an assignment, the end leaves a bare name.
    bool name_end(char c)
    {
        if (c == '(') {
            cmd_->is_call = 1;
            enter(St::WAIT_RECEIVE_FIRST_ARG);
            return true;
        }
        if (c == '=') {
            cmd_->is_call = 0;
            enter(St::WAIT_RECEIVE_FIRST_ARG);
            return true;
        }
        return c == '\0';
    }

    udbg_cmd *cmd_;
    St st_ = St::STARTING;
    bool entered_ = false;
    int len_ = 0;   // characters in the current argument's text
};

}  // namespace

int udbg_cmd_parse(const char *line, udbg_cmd *cmd) noexcept
{
    if (!cmd)
        return -1;
    memset(cmd, 0, sizeof *cmd);
    if (!line)
        return -1;
    Parser p(cmd);
    if (!p.run(line))
        return -1;
    // A lone "=" with no value never leaves WAIT_RECEIVE_FIRST_ARG, which ends as an error
    // above; every accepted assignment therefore holds exactly one value.
    udbg_para_dump(cmd);
    return 0;
}

void udbg_para_dump(const udbg_cmd *cmd) noexcept
{
    if (!cmd || !udbg_dbg_on.load(std::memory_order_relaxed))
        return;
    UDBG_DBG("===============DUMP PARA START===============\n");
    if (cmd->is_call) {
        UDBG_DBG("func name:\t%s\n", cmd->name);
        UDBG_DBG("para cnt:\t%d\n", cmd->argc);
        UDBG_DBG("para list:\n");
        for (int i = 0; i < cmd->argc; i++)
            UDBG_DBG("para type:%s\tvalue:%s\n",
                     cmd->args[i].type == UDBG_ARG_STRING ? "string" : "integer",
                     cmd->args[i].text);
    } else {
        UDBG_DBG("variable name:\t%s\n", cmd->name);
        if (cmd->argc > 0)
            UDBG_DBG("variable type:%s\tvalue:%s\n",
                     cmd->args[0].type == UDBG_ARG_STRING ? "string" : "integer",
                     cmd->args[0].text);
    }
    UDBG_DBG("===============DUMP PARA END===============\n");
}
