// Wraps Wine's <sal.h> (source annotations) and defines, empty, the
// annotations Microsoft's STL and the Windows SDK use that Wine's lacks. They
// only guide the static analyser of MSVC proper; clang ignores them. Test
// build only.
#pragma once
#include_next <sal.h>

#ifndef _Check_return_
#define _Check_return_
#endif
#ifndef _Check_return_opt_
#define _Check_return_opt_
#endif
#ifndef _Deref_out_
#define _Deref_out_
#endif
#ifndef _Deref_out_z_
#define _Deref_out_z_
#endif
#ifndef _Deref_post_opt_valid_
#define _Deref_post_opt_valid_
#endif
#ifndef _Deref_post_z_
#define _Deref_post_z_
#endif
#ifndef _Deref_pre_z_
#define _Deref_pre_z_
#endif
#ifndef _Field_z_
#define _Field_z_
#endif
#ifndef _Frees_ptr_
#define _Frees_ptr_
#endif
#ifndef _Frees_ptr_opt_
#define _Frees_ptr_opt_
#endif
#ifndef _In_
#define _In_
#endif
#ifndef _In_opt_
#define _In_opt_
#endif
#ifndef _In_opt_z_
#define _In_opt_z_
#endif
#ifndef _In_z_
#define _In_z_
#endif
#ifndef _Inout_
#define _Inout_
#endif
#ifndef _Inout_opt_
#define _Inout_opt_
#endif
#ifndef _Inout_z_
#define _Inout_z_
#endif
#ifndef _Interlocked_operand_
#define _Interlocked_operand_
#endif
#ifndef _Maybenull_
#define _Maybenull_
#endif
#ifndef _Must_inspect_result_
#define _Must_inspect_result_
#endif
#ifndef _Notnull_
#define _Notnull_
#endif
#ifndef _NullNull_terminated_
#define _NullNull_terminated_
#endif
#ifndef _Null_terminated_
#define _Null_terminated_
#endif
#ifndef _Out_
#define _Out_
#endif
#ifndef _Out_opt_
#define _Out_opt_
#endif
#ifndef _Outptr_
#define _Outptr_
#endif
#ifndef _Outptr_opt_
#define _Outptr_opt_
#endif
#ifndef _Outptr_opt_result_maybenull_
#define _Outptr_opt_result_maybenull_
#endif
#ifndef _Outptr_result_buffer_maybenull_
#define _Outptr_result_buffer_maybenull_
#endif
#ifndef _Outptr_result_maybenull_
#define _Outptr_result_maybenull_
#endif
#ifndef _Outptr_result_z_
#define _Outptr_result_z_
#endif
#ifndef _Post_invalid_
#define _Post_invalid_
#endif
#ifndef _Post_valid_
#define _Post_valid_
#endif
#ifndef _Post_z_
#define _Post_z_
#endif
#ifndef _Pre_maybenull_
#define _Pre_maybenull_
#endif
#ifndef _Pre_notnull_
#define _Pre_notnull_
#endif
#ifndef _Pre_valid_
#define _Pre_valid_
#endif
#ifndef _Pre_z_
#define _Pre_z_
#endif
#ifndef _Printf_format_string_
#define _Printf_format_string_
#endif
#ifndef _Reserved_
#define _Reserved_
#endif
#ifndef _Result_nullonfailure_
#define _Result_nullonfailure_
#endif
#ifndef _Result_zeroonfailure_
#define _Result_zeroonfailure_
#endif
#ifndef _Ret_maybenull_
#define _Ret_maybenull_
#endif
#ifndef _Ret_notnull_
#define _Ret_notnull_
#endif
#ifndef _Ret_opt_z_
#define _Ret_opt_z_
#endif
#ifndef _Ret_valid_
#define _Ret_valid_
#endif
#ifndef _Ret_z_
#define _Ret_z_
#endif
#ifndef _Scanf_format_string_
#define _Scanf_format_string_
#endif
#ifndef _Scanf_s_format_string_
#define _Scanf_s_format_string_
#endif
#ifndef _Use_decl_annotations_
#define _Use_decl_annotations_
#endif
#ifndef _Acquires_exclusive_lock_
#define _Acquires_exclusive_lock_(...)
#endif
#ifndef _Acquires_lock_
#define _Acquires_lock_(...)
#endif
#ifndef _Acquires_shared_lock_
#define _Acquires_shared_lock_(...)
#endif
#ifndef _Always_
#define _Always_(...)
#endif
#ifndef _Analysis_assume_
#define _Analysis_assume_(...)
#endif
#ifndef _Analysis_assume_lock_held_
#define _Analysis_assume_lock_held_(...)
#endif
#ifndef _At_
#define _At_(...)
#endif
#ifndef _At_buffer_
#define _At_buffer_(...)
#endif
#ifndef _Deref_in_range_
#define _Deref_in_range_(...)
#endif
#ifndef _Deref_out_range_
#define _Deref_out_range_(...)
#endif
#ifndef _Field_range_
#define _Field_range_(...)
#endif
#ifndef _Field_size_
#define _Field_size_(...)
#endif
#ifndef _Field_size_bytes_
#define _Field_size_bytes_(...)
#endif
#ifndef _Field_size_opt_
#define _Field_size_opt_(...)
#endif
#ifndef _Guarded_by_
#define _Guarded_by_(...)
#endif
#ifndef _In_NLS_string_
#define _In_NLS_string_(...)
#endif
#ifndef _In_range_
#define _In_range_(...)
#endif
#ifndef _In_reads_
#define _In_reads_(...)
#endif
#ifndef _In_reads_bytes_
#define _In_reads_bytes_(...)
#endif
#ifndef _In_reads_bytes_opt_
#define _In_reads_bytes_opt_(...)
#endif
#ifndef _In_reads_opt_
#define _In_reads_opt_(...)
#endif
#ifndef _In_reads_to_ptr_
#define _In_reads_to_ptr_(...)
#endif
#ifndef _In_reads_z_
#define _In_reads_z_(...)
#endif
#ifndef _Inout_bytecount_
#define _Inout_bytecount_(...)
#endif
#ifndef _Inout_updates_
#define _Inout_updates_(...)
#endif
#ifndef _Inout_updates_bytes_
#define _Inout_updates_bytes_(...)
#endif
#ifndef _Inout_updates_z_
#define _Inout_updates_z_(...)
#endif
#ifndef _Out_range_
#define _Out_range_(...)
#endif
#ifndef _Out_writes_
#define _Out_writes_(...)
#endif
#ifndef _Out_writes_all_
#define _Out_writes_all_(...)
#endif
#ifndef _Out_writes_bytes_
#define _Out_writes_bytes_(...)
#endif
#ifndef _Out_writes_bytes_all_
#define _Out_writes_bytes_all_(...)
#endif
#ifndef _Out_writes_bytes_opt_
#define _Out_writes_bytes_opt_(...)
#endif
#ifndef _Out_writes_bytes_to_
#define _Out_writes_bytes_to_(...)
#endif
#ifndef _Out_writes_opt_
#define _Out_writes_opt_(...)
#endif
#ifndef _Out_writes_opt_z_
#define _Out_writes_opt_z_(...)
#endif
#ifndef _Out_writes_to_
#define _Out_writes_to_(...)
#endif
#ifndef _Out_writes_to_opt_
#define _Out_writes_to_opt_(...)
#endif
#ifndef _Out_writes_z_
#define _Out_writes_z_(...)
#endif
#ifndef _Outptr_result_buffer_
#define _Outptr_result_buffer_(...)
#endif
#ifndef _Post_equal_to_
#define _Post_equal_to_(...)
#endif
#ifndef _Post_readable_size_
#define _Post_readable_size_(...)
#endif
#ifndef _Post_satisfies_
#define _Post_satisfies_(...)
#endif
#ifndef _Post_writable_byte_size_
#define _Post_writable_byte_size_(...)
#endif
#ifndef _Post_writable_size_
#define _Post_writable_size_(...)
#endif
#ifndef _Pre_equal_to_
#define _Pre_equal_to_(...)
#endif
#ifndef _Pre_readable_size_
#define _Pre_readable_size_(...)
#endif
#ifndef _Pre_satisfies_
#define _Pre_satisfies_(...)
#endif
#ifndef _Pre_writable_size_
#define _Pre_writable_size_(...)
#endif
#ifndef _Printf_format_string_params_
#define _Printf_format_string_params_(...)
#endif
#ifndef _Releases_exclusive_lock_
#define _Releases_exclusive_lock_(...)
#endif
#ifndef _Releases_lock_
#define _Releases_lock_(...)
#endif
#ifndef _Releases_shared_lock_
#define _Releases_shared_lock_(...)
#endif
#ifndef _Requires_lock_held_
#define _Requires_lock_held_(...)
#endif
#ifndef _Requires_lock_not_held_
#define _Requires_lock_not_held_(...)
#endif
#ifndef _Ret_notnull_
#define _Ret_notnull_(...)
#endif
#ifndef _Ret_range_
#define _Ret_range_(...)
#endif
#ifndef _Ret_writes_
#define _Ret_writes_(...)
#endif
#ifndef _Ret_writes_bytes_
#define _Ret_writes_bytes_(...)
#endif
#ifndef _Return_type_success_
#define _Return_type_success_(...)
#endif
#ifndef _Satisfies_
#define _Satisfies_(...)
#endif
#ifndef _Struct_size_bytes_
#define _Struct_size_bytes_(...)
#endif
#ifndef _Success_
#define _Success_(...)
#endif
#ifndef _When_
#define _When_(...)
#endif
