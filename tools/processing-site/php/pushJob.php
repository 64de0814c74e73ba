<?php
// Records a job request: one JSON line in jobs.jsonl with the body as it came and the fields as
// PHP decoded them. DX_JOB_STATUS, when set, is the status it answers with instead of 200.
$status = (int) getenv('DX_JOB_STATUS');
if ($status !== 0) {
    http_response_code($status);
    exit;
}
$record = ['content_type' => $_SERVER['CONTENT_TYPE'] ?? '',
           'body' => file_get_contents('php://input'), 'fields' => $_POST];
file_put_contents(getenv('DX_SITE_ROOT') . '/jobs.jsonl',
                  json_encode($record, JSON_UNESCAPED_UNICODE | JSON_UNESCAPED_SLASHES) . "\n",
                  FILE_APPEND | LOCK_EX);
