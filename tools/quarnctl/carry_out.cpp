#include "carry_out.h"

#include "confirming.h"
#include "report.h"
#include "values.h"

namespace quarnctl {

namespace {

// Who does not wait reads nothing first either, unless the plan hangs on what is there.
bool needs_current(const Session& session, const cJSON* wanted, Unchanged unchanged,
                   const ChangeOptions& options)
{
    const auto count = static_cast<std::size_t>(cJSON_GetArraySize(wanted));
    return !session.no_wait || options.dry_run || unchanged == Unchanged::LEFT_OUT ||
           keys_to_read(wanted).size() > count;
}

OwnedJson result_as_json(bool success, const Plan& plan, const std::vector<Fault>& faults)
{
    OwnedJson object = new_object();
    cJSON_AddBoolToObject(object.get(), "success", success);
    put(object.get(), "errors", faults_as_json(faults));
    put(object.get(), "changes", changes_as_json(plan.changes));
    put(object.get(), "left_alone", faults_as_json(plan.left_alone));
    return object;
}

int report_result(const Session& session, const Plan& plan, const Answer& answer)
{
    if (session.json)
        print_json(result_as_json(answer.success, plan, answer.faults).get());
    else if (!answer.success)
        return report_refusal(session, answer);
    else
        print_changes(plan.changes);
    if (!session.json && !answer.faults.empty())
        (void)report_faults(session, answer.faults);
    return answer.success && answer.faults.empty() ? DONE : REFUSED;
}

int send_without_waiting(Session& session, const Plan& plan)
{
    Failure failure;
    for (const OwnedJson& request : plan.requests) {
        if (!send_settings(session, request.get(), failure))
            return report_failure(session, failure);
    }
    if (session.json)
        print_json(result_as_json(true, plan, {}).get());
    return DONE;
}

} // namespace

void tell_what_is_left_alone(const Session& session, const Plan& plan)
{
    if (session.json)
        return;
    for (const Fault& fault : plan.left_alone)
        complain(printable(fault.key) + ": " + printable(fault.message));
}

bool send_requests(Session& session, const Plan& plan, Answer& answer, Failure& failure)
{
    std::vector<Fault> faults;
    answer = {};
    answer.success = true;
    for (const OwnedJson& request : plan.requests) {
        if (!set_settings(session, request.get(), answer, failure))
            return false;
        if (!answer.success)
            return false;
        faults.insert(faults.end(), answer.faults.begin(), answer.faults.end());
    }
    answer.faults = std::move(faults);
    return true;
}

int carry_out(Session& session, const cJSON* wanted, Unchanged unchanged, const ChangeOptions& options)
{
    Answer current;
    Failure failure;
    current.root = new_object();
    const bool is_read = needs_current(session, wanted, unchanged, options);
    if (is_read && !get_settings(session, keys_to_read(wanted), current, failure))
        return report_failure(session, failure);
    // What cannot be read could not be taken back.
    if (options.confirm_seconds > 0 && !current.faults.empty())
        return report_faults(session, current.faults);
    Plan plan = make_plan(wanted, current.root.get(), unchanged);
    if (!plan.faults.empty())
        return report_faults(session, plan.faults);
    plan.left_alone.insert(plan.left_alone.begin(), options.left_out.begin(), options.left_out.end());
    if (!is_read)
        plan.changes.clear();

    Answer answer;
    answer.success = true;
    if (!options.dry_run && !plan.requests.empty() && options.confirm_seconds > 0) {
        const OwnedJson restore = values_to_restore(plan, current.root.get());
        return change_until_confirmed(session, std::move(plan), restore.get(), options.confirm_seconds);
    }
    tell_what_is_left_alone(session, plan);
    if (options.dry_run || plan.requests.empty())
        return report_result(session, plan, answer);
    if (session.no_wait)
        return send_without_waiting(session, plan);
    if (!send_requests(session, plan, answer, failure) && failure.exit_status != DONE)
        return report_failure(session, failure);
    return report_result(session, plan, answer);
}

} // namespace quarnctl
