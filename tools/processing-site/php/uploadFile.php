<?php
// Stores the part "file" of a multipart POST in storage/ and answers the stored name, nothing
// else (but see DX_LINE_BREAK below). A name that is taken gets "-1", "-2", ... before its
// extension, as servers that keep every upload do. When PHP dropped the body (larger than
// post_max_size) the script sees no file at all and, like many real sites, answers 200 with an
// empty body.
$storage = getenv('DX_SITE_ROOT') . '/storage';
$file = $_FILES['file'] ?? null;
if ($file === null) {
    exit;
}
if ($file['error'] !== UPLOAD_ERR_OK) {
    http_response_code(400);
    echo 'upload error ', $file['error'];
    exit;
}
$name = basename($file['name']);
$dot = strrpos($name, '.');
$stem = $dot === false ? $name : substr($name, 0, $dot);
$extension = $dot === false ? '' : substr($name, $dot);
for ($n = 1; file_exists("$storage/$name"); ++$n) {
    $name = "$stem-$n$extension";
}
if (!move_uploaded_file($file['tmp_name'], "$storage/$name")) {
    http_response_code(500);
    echo 'could not store ', $name;
    exit;
}
// DX_ANSWER: what else real sites answer. With display_errors on (notice, html-notice), a slip
// of the script - here a form field it expects and nobody sends - puts PHP's warning before the
// name; a misconfigured site answers a page (html); a broken one goes on and on (long).
$answer = getenv('DX_ANSWER');
if ($answer === 'notice' || $answer === 'html-notice') {
    $comment = $_POST['comment'];
}
if ($answer === 'html') {
    echo "<!DOCTYPE html>\n<html><head><title>Index of /</title></head>\n<body><h1>It works!</h1></body></html>\n";
    exit;
}
// DX_LINE_BREAK=1: the answer ends in a line break, as a script that prints a line does.
echo $name, getenv('DX_LINE_BREAK') === '1' ? "\n" : '';
if ($answer === 'long') {
    $block = str_repeat("0123456789abcdef", 65536);
    for ($n = 0; $n < 64; ++$n) {
        echo $block;
    }
}
